#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "launchfile/apply_journal.h"

// The steps of `vornctl apply`, independent of the system that executes them.
// A kill or a power cut can interrupt them at any point: the launch file is
// complete after each step, and a journal next to it records the progress for
// the next run.

namespace vorn::launch {

/// The operations of an apply. Each that returns false sets `error` to a
/// sentence.
class ApplyOperations {
 public:
  virtual ~ApplyOperations() = default;

  /// Reads a file; `text` is empty if it does not exist.
  virtual bool read(const std::string& path, std::optional<std::string>& text,
                    std::string& error) = 0;

  /// Replaces a file at once, and so that it survives a power cut.
  virtual bool write(const std::string& path, const std::string& text,
                     std::string& error) = 0;

  /// Removes a file, if it exists, as durably as write().
  virtual bool remove(const std::string& path, std::string& error) = 0;

  /// Whether the machine permits a restart now; otherwise `error` is the
  /// reason.
  virtual bool mayRestart(std::string& error) = 0;

  /// Restarts the launcher and waits until its nodes are healthy.
  virtual bool restart(std::string& error) = 0;
};

enum class ApplyOutcome {
  UNCHANGED,
  APPLIED,
  REFUSED,      // mayRestart() was false; nothing was changed
  NOT_APPLIED,  // nothing was changed, because a file could not be written
  PUT_BACK,     // the new file was not healthy, and the old one is back
};

struct ApplyResult {
  ApplyOutcome outcome = ApplyOutcome::UNCHANGED;
  std::vector<std::string> messages;  // sentences, for users
};

/// Applies a launch file.
class ApplySteps {
 public:
  /// `launch_file` is the path of the file that the launcher reads. `now` is
  /// the time, for the message of the next run after an interruption.
  ApplySteps(ApplyOperations& operations, std::string launch_file,
             std::string now)
      : operations_(operations),
        launch_file_(std::move(launch_file)),
        now_(std::move(now)) {}

  /// Replaces the launch file by one with `text` and restarts the launcher, and
  /// puts the old file back if that fails. First completes an interrupted run,
  /// whose file counts as not applied.
  ApplyResult apply(const std::string& text);

 private:
  bool readState();
  bool writeJournal(bool is_replacing);
  bool keepOldFile();
  bool replaceFile(const std::string& text);
  bool restoreOldFile();
  void putBack(const std::string& reason);
  void finish(ApplyOutcome outcome);
  void say(const std::string& message) { result_.messages.push_back(message); }

  ApplyOperations& operations_;
  std::string launch_file_;
  std::string now_;
  std::optional<ApplyJournal> journal_;  // of an interrupted run
  std::optional<std::string> current_;
  std::optional<std::string> old_;  // the last one that was applied
  std::string error_;
  ApplyResult result_;
};

}  // namespace vorn::launch
