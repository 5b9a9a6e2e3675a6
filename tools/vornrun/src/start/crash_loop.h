#pragma once

#include <functional>
#include <optional>
#include <string>

#include "run_arguments.h"
#include "run_settings.h"
#include "start/start_history.h"

namespace vorn::run {

/// --backoff and --give-up of one start. The history of the node is a file in
/// the state directory.
class CrashLoop {
 public:
  /// Called before a delay with the number of restarts and the delay.
  using OnDelay = std::function<void(size_t restarts, milliseconds delay)>;

  CrashLoop(const RunSettings& settings, const std::string& node);

  /// Creates the state directory and the file. Returns an error if the history
  /// cannot be stored.
  std::optional<RunError> open();

  /// After open(). Delays the start, or asks the launcher to disable the node,
  /// which then stops this process. Returns an error if the program must not be
  /// executed. `on_give_up` is called before the request to the launcher.
  std::optional<RunError> beforeStart(const OnDelay& on_delay,
                                      const std::function<void()>& on_give_up);

  /// Records the execution of the program, which follows.
  std::optional<RunError> recordStart();

 private:
  bool isActive() const { return settings_.backoff || settings_.giveUp; }
  std::optional<RunError> store() const;
  RunError giveUp();

  const RunSettings& settings_;
  const std::string& node_;
  std::string path_;
  std::string boot_id_;
  StartHistory history_;
  int64_t now_ = 0;  // of open()
};

}  // namespace vorn::run
