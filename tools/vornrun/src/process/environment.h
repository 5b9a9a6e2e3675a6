#pragma once

#include <optional>
#include <string>
#include <vector>

#include "account.h"
#include "run_arguments.h"
#include "run_settings.h"

namespace vorn::run {

/// The environment of the program: NAME=VALUE, each name once.
class Environment {
 public:
  Environment() = default;
  /// That of this process.
  static Environment inherited();

  void set(const std::string& name, const std::string& value);
  void unset(const std::string& name);
  std::optional<std::string> find(const std::string& name) const;
  const std::vector<std::string>& entries() const { return entries_; }

 private:
  std::vector<std::string> entries_;
};

/// The environment according to `settings`, from `inherited` and, if `account`
/// is not nullptr, with HOME, LOGNAME, SHELL and USER of that user. The name of
/// the node remains in any case; the connections of a service to systemd do
/// not, because the node is another service. Returns the error, if any.
std::optional<RunError> buildEnvironment(const RunSettings& settings,
                                         const Account* account,
                                         const Environment& inherited,
                                         Environment& result);

/// `text` with the values of $NAME and ${NAME}, and "$" for "$$". Returns
/// nothing if a variable is not set, whose name is then in `missing`.
std::optional<std::string> expandVariables(const std::string& text,
                                           const Environment& environment,
                                           std::string& missing);

}  // namespace vorn::run
