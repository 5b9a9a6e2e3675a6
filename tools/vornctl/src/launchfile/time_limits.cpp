#include "launchfile/time_limits.h"

#include <algorithm>
#include <set>

#include "launchfile/required_graph.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;
using Cmd = ControlRequest::Cmd;

constexpr milliseconds kLongest = std::chrono::hours(24);
constexpr milliseconds kGrace = std::chrono::seconds(30);

class Estimate {
 public:
  explicit Estimate(const LaunchFile& file) : file_(file) {}

  milliseconds ofStop(const std::string& name) {
    const LaunchFile::Node* const node = file_.find(name);
    milliseconds sum = kLongestStop;
    // The paths multiply: what is out of all bounds need not be walked.
    if (++stops_ > kLongest / kLongestStop) return kLongest;
    // A node on the way here is no new stop.
    if (node == nullptr || !on_path_.insert(name).second) return sum;
    for (const std::string& other : valuesOf(node->required)) {
      if (other == name || file_.find(other) == nullptr) continue;
      sum += ofStop(other) + kStopPause + sleepOf(other);
      if (sum > kLongest) break;
    }
    on_path_.erase(name);
    return std::min(sum, kLongest);
  }

  milliseconds sleepOf(const std::string& name) const {
    const LaunchFile::Node* const node = file_.find(name);
    return milliseconds(
        node == nullptr ? 0 : effectiveSleepMs(node->sleepMs.value));
  }

 private:
  const LaunchFile& file_;
  std::set<std::string> on_path_;
  int64_t stops_ = 0;
};

}  // namespace

milliseconds longestDuration(const LaunchFile& file, Cmd cmd,
                             const std::string& name) {
  Estimate estimate(file);
  switch (cmd) {
    case Cmd::STOP:
    case Cmd::DISABLE:
      return estimate.ofStop(name);
    case Cmd::RESTART:
      return std::min(
          estimate.ofStop(name) + kStopPause + estimate.sleepOf(name),
          kLongest);
    case Cmd::START:
      return std::min(estimate.sleepOf(name), kLongest);
    case Cmd::STATUS:
    case Cmd::ENABLE:
      break;
  }
  return milliseconds(0);
}

milliseconds defaultReplyLimit(const LaunchFile& file, Cmd cmd,
                               const std::string& name) {
  return 2 * longestDuration(file, cmd, name) + kGrace;
}

}  // namespace vorn::launch
