#include "start/wait_for.h"

#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>

#include "file_text.h"
#include "option_values.h"
#include "start/network.h"
#include "start/wait_command.h"

namespace vorn::run {
namespace {

using Clock = std::chrono::steady_clock;

constexpr milliseconds kCheckPause{100};     // between two checks
constexpr milliseconds kConnectLimit{1000};  // for one connection
// For one command, so that a lost packet does not block forever.
constexpr milliseconds kCommandLimit{60'000};

/// Checks one condition again and again.
class ConditionWait {
 public:
  ConditionWait(const Condition& condition, const Account* account,
                const Environment& environment)
      : condition_(condition), account_(account), environment_(environment) {
    if (condition.kind == Condition::Kind::TCP) {
      const auto [host, port] = splitHostPort(condition.value);
      addresses_ = findAddresses(host, port, readFileText("/etc/hosts").text);
    } else if (condition.kind == Condition::Kind::UNIX) {
      addresses_ = unixAddress(condition.value);
    }
  }

  /// Why the condition can never hold; empty if it can.
  std::string impossibility() const {
    if (!addresses_.empty()) return "";
    if (condition_.kind == Condition::Kind::TCP) {
      return "tcp:" + condition_.value +
             ": the host is neither an address nor in /etc/hosts";
    }
    if (condition_.kind == Condition::Kind::UNIX) {
      return "unix:" + condition_.value + ": the path is too long for a socket";
    }
    return "";
  }

  /// Whether it holds now; the check takes at most `left`.
  bool holds(milliseconds left) const {
    switch (condition_.kind) {
      case Condition::Kind::PATH: {
        struct stat status {};
        return ::stat(condition_.value.c_str(), &status) == 0;
      }
      case Condition::Kind::EXEC:
        return runs({"/bin/sh", "-c", condition_.value}, left);
      case Condition::Kind::HTTP:
        return runs({"curl", "--fail", "--silent", "--output", "/dev/null",
                     "--", condition_.value},
                    left);
      default:
        return acceptsConnection(
            addresses_,
            static_cast<int>(std::min(left, kConnectLimit).count()));
    }
  }

 private:
  bool runs(const std::vector<std::string>& arguments,
            milliseconds left) const {
    return commandSucceeds(arguments, account_, environment_,
                           std::min(left, kCommandLimit));
  }

  const Condition& condition_;
  const Account* account_;
  const Environment& environment_;
  std::vector<SocketAddress> addresses_;
};

}  // namespace

std::optional<RunError> waitForConditions(
    const RunSettings& settings, const Account* account,
    const Environment& environment,
    const std::function<void(size_t)>& on_condition) {
  const bool is_limited = settings.waitTimeout.count() > 0;
  const Clock::time_point deadline = Clock::now() + settings.waitTimeout;
  for (size_t i = 0; i < settings.waitFor.size(); ++i) {
    const Condition& condition = settings.waitFor[i];
    on_condition(i);
    const ConditionWait wait(condition, account, environment);
    const std::string impossibility = wait.impossibility();
    if (!impossibility.empty()) return RunError{"--wait-for", impossibility};
    for (;;) {
      const milliseconds left =
          is_limited ? std::chrono::ceil<milliseconds>(deadline - Clock::now())
                     : kCommandLimit;
      if (wait.holds(std::max(left, milliseconds(1)))) break;
      if (is_limited && Clock::now() >= deadline) {
        return RunError{"--wait-timeout",
                        conditionText(condition) + " does not hold in time"};
      }
      (void)::poll(nullptr, 0,
                   static_cast<int>(std::min(left, kCheckPause).count()));
    }
  }
  return std::nullopt;
}

}  // namespace vorn::run
