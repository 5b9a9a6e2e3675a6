#include "live/run_state.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <string_view>

#include "descriptor.h"
#include "launchfile/source_text.h"
#include "live/launcher_file.h"
#include "live/process_table.h"
#include "output/json.h"
#include "run_arguments.h"
#include "state_file_name.h"

namespace vorn::launch {
namespace {

constexpr off_t kLargestState = 65536;

/// A member of this type; nothing if it is missing, null or of another type.
template <typename Value>
std::optional<Value> memberOf(const Json& object, const char* name) {
  const auto found = object.find(name);
  if (found == object.end()) return std::nullopt;
  if constexpr (std::is_same_v<Value, std::string>) {
    if (!found->is_string()) return std::nullopt;
  } else if constexpr (std::is_same_v<Value, bool>) {
    if (!found->is_boolean()) return std::nullopt;
  } else {
    if (!found->is_number_integer()) return std::nullopt;
  }
  return found->template get<Value>();
}

/// Whether the state in `json` is that of the run.
bool isAbout(const RunIdentity& run, const Json& json, const RunState& state) {
  // The file of an earlier run is older than the start of this one.
  if (run.pid == 0) {
    return state.hasGivenUp() && state.phaseSince >= run.startSeconds;
  }
  return memberOf<int64_t>(json, "pid") == run.pid &&
         (!run.startTicks ||
          memberOf<uint64_t>(json, "startTime") == run.startTicks);
}

/// Whether only root and the launcher's user can have written the file.
bool isTrusted(const struct stat& file, pid_t launcher) {
  struct stat process {};
  const std::string directory = "/proc/" + std::to_string(launcher);
  return S_ISREG(file.st_mode) && file.st_size <= kLargestState &&
         (file.st_mode & S_IWOTH) == 0 &&
         (file.st_uid == 0 || (::stat(directory.c_str(), &process) == 0 &&
                               file.st_uid == process.st_uid));
}

std::optional<std::string> readTrusted(const LauncherProcess& launcher,
                                       const std::string& path) {
  if (launcher.pid == 0 || !launcher.root || path.empty()) return std::nullopt;
  const Descriptor file(openAsLauncher(launcher.pid, *launcher.root, path,
                                       O_RDONLY | O_NONBLOCK | O_NOFOLLOW));
  struct stat status {};
  if (file.number() < 0 || ::fstat(file.number(), &status) != 0 ||
      !isTrusted(status, launcher.pid)) {
    return std::nullopt;
  }
  std::string reason;
  const auto text = readSourceText(path, file.number(), reason);
  if (!text) return std::nullopt;
  return text->text();
}

}  // namespace

std::optional<RunState> parseRunState(const std::string& text,
                                      const RunIdentity& run) {
  const Json json = Json::parse(text, nullptr, false);
  if (!json.is_object()) return std::nullopt;
  RunState state;
  state.phase = memberOf<std::string>(json, "phase").value_or("");
  state.phaseSince = memberOf<int64_t>(json, "phaseSince").value_or(0);
  if (state.phase.empty() || !isAbout(run, json, state)) return std::nullopt;
  state.status = memberOf<std::string>(json, "status").value_or("");
  state.isReady = memberOf<bool>(json, "ready");
  state.restarts = memberOf<int64_t>(json, "restarts").value_or(0);
  state.delayedUntil = memberOf<int64_t>(json, "delayedUntil");
  state.droppedBytes = memberOf<int64_t>(json, "droppedBytes").value_or(0);
  if (const auto probe = json.find("lastProbe");
      probe != json.end() && probe->is_object()) {
    state.lastProbe = {memberOf<bool>(*probe, "ok").value_or(false),
                       memberOf<std::string>(*probe, "message").value_or(""),
                       memberOf<int64_t>(*probe, "time").value_or(0)};
  }
  return state;
}

NodeRun readNodeRun(const LauncherProcess& launcher,
                    const LaunchFile::Node& node, pid_t pid,
                    int64_t start_seconds) {
  const std::string& program = node.executable;
  if (program.substr(program.rfind('/') + 1) != "vornrun") return {};
  const run::RunSettings settings =
      run::parseRunArguments(valuesOf(node.arguments)).settings;
  NodeRun run;
  run.isExpected =
      settings.ready || settings.backoff || !settings.waitFor.empty();
  RunIdentity process{pid, std::nullopt, start_seconds};
  if (pid != 0 && launcher.sharesPids) {
    const auto found = readProcess(pid);
    if (found) process.startTicks = found->startTicks;
  }
  const auto text =
      readTrusted(launcher, settings.stateDirectory + "/" +
                                run::fileNameOf(node.name.value) + ".json");
  if (text) run.state = parseRunState(*text, process);
  return run;
}

}  // namespace vorn::launch
