#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <optional>

#include "import/command_words.h"
#include "import/systemd_unit.h"
#include "output/text.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

// The keys without a counterpart.
constexpr KeyAdvice kUnitAdvice[] = {
    {" ExecStartPre ExecStartPost ExecCondition ",
     "start a script that runs the command and then executes the program"},
    {" ExecReload ReloadSignal ",
     "send the signal to the pid that 'vornctl status' shows"},
    {" ExecStop ExecStopPost KillSignal KillMode TimeoutStopSec TimeoutSec "
     "SendSIGKILL SendSIGHUP FinalKillSignal RestartKillSignal "
     "TimeoutAbortSec ",
     "the launcher sends SIGTERM to the process of the node, and SIGKILL "
     "after 10 s"},
    {" RuntimeDirectory RuntimeDirectoryMode RuntimeDirectoryPreserve "
     "StateDirectory StateDirectoryMode CacheDirectory CacheDirectoryMode "
     "LogsDirectory LogsDirectoryMode ConfigurationDirectory "
     "ConfigurationDirectoryMode ",
     "create the directory with systemd-tmpfiles"},
    {" MemoryMax MemoryHigh MemoryMin MemoryLow MemorySwapMax MemoryLimit "
     "CPUQuota CPUWeight CPUShares StartupCPUWeight IOWeight TasksMax Slice "
     "Delegate AllowedCPUs ",
     "the option --cgroup of vornrun gives the node a control group, without "
     "limits; the launcher's unit needs 'Delegate=yes' for it"},
    {" PIDFile GuessMainPID ", "the launcher knows the pid"},
    {" NotifyAccess ", "vornrun accepts messages of the program only"},
    {" BusName ", "the launcher does not wait for a name on the bus"},
    {" RemainAfterExit ", "a oneshot that has exited is disabled"},
    {" SuccessExitStatus RestartPreventExitStatus RestartForceExitStatus ",
     "a node is restarted after any exit status; 'oneshot: true' turns that "
     "off"},
    {" Sockets FileDescriptorStoreMax ", "the launcher does not pass sockets"},
    {" OnFailure OnSuccess ",
     "'vornctl monitor --json' prints the changes of nodes"},
    {" PassEnvironment UnsetEnvironment ",
     "nodes inherit the variables of the launcher"},
    {" DynamicUser SupplementaryGroups ",
     "vornrun sets all groups of an existing user"},
    {" TimeoutStartSec JobTimeoutSec ",
     "the launcher does not wait until a node is ready"},
    {" SyslogIdentifier SyslogFacility SyslogLevel SyslogLevelPrefix ",
     "with the option '--log journal' of vornrun, the identifier is the name "
     "of the node"},
    {" Alias Also DefaultInstance UpheldBy ", "a node has one name"},
    {" StandardInput TTYPath ", "a node has the launcher's standard input"},
};
constexpr char kDefaultAdvice[] =
    "no counterpart; write it in the launcher's unit if it suits all nodes";
constexpr char kConditionAdvice[] =
    "the launcher has no conditions; see the option --wait-for of vornrun";
constexpr char kOtherUnit[] =
    "not an imported unit; order the launcher's own unit, or see the option "
    "--wait-for of vornrun";

bool isYes(const std::string& value) {
  const std::string word = lowerCase(value);
  return word == "yes" || word == "true" || word == "on" || word == "1";
}

}  // namespace

void UnitImporter::addIdentity() {
  const IniEntry* const user = takeLast("User");
  const IniEntry* const group = takeLast("Group");
  if (user != nullptr || group != nullptr) {
    node_.options.emplace_back(
        "user", expanded(user == nullptr ? "root" : user->value) +
                    (group == nullptr ? "" : ":" + expanded(group->value)));
  }
  addOption("UMask", "umask");
  const IniEntry* const directory = takeLast("WorkingDirectory");
  if (directory == nullptr) return;
  std::string path = expanded(directory->value);
  if (path[0] == '-') path.erase(0, 1);
  if (path == "~") {
    node_.omit("WorkingDirectory", "~",
               "write the home directory of the user in the option "
               "--directory of vornrun");
  } else {
    node_.options.emplace_back("directory", std::move(path));
  }
}

void UnitImporter::addVariables() {
  for (const IniEntry* entry : take("Environment")) {
    const auto words = unitWords(expanded(entry->value));
    if (!words) {
      throw ImportError(file_, entry->line,
                        "a quote in Environment is not closed");
    }
    for (const std::string& word : *words) {
      const size_t equals = word.find('=');
      if (equals == std::string::npos || equals == 0) {
        throw ImportError(file_, entry->line,
                          "'" + word + "' is not NAME=VALUE");
      }
      node_.environment.emplace_back(word.substr(0, equals),
                                     word.substr(equals + 1));
    }
  }
  for (const IniEntry* entry : take("EnvironmentFile")) {
    node_.options.emplace_back("env-file", expanded(entry->value));
  }
}

void UnitImporter::addLimits() {
  for (const char* const name :
       {"CPU", "FSIZE", "DATA", "STACK", "CORE", "RSS", "NOFILE", "AS", "NPROC",
        "MEMLOCK", "LOCKS", "SIGPENDING", "MSGQUEUE", "NICE", "RTPRIO",
        "RTTIME"}) {
    const IniEntry* const entry = takeLast(std::string("Limit") + name);
    if (entry == nullptr) continue;
    node_.options.emplace_back("limit", lowerCase(name) + "=" + entry->value);
  }
}

void UnitImporter::addScheduling() {
  addOption("Nice", "nice");
  addOption("OOMScoreAdjust", "oom-score-adj");
  if (const IniEntry* const cpus = takeLast("CPUAffinity")) {
    std::string list;
    for (std::string& word : split(cpus->value, ' ')) {
      if (word.back() == ',') word.pop_back();
      list += (list.empty() ? "" : ",") + word;
    }
    node_.options.emplace_back("cpu-list", std::move(list));
  }
  const IniEntry* const policy = takeLast("CPUSchedulingPolicy");
  const IniEntry* const priority = takeLast("CPUSchedulingPriority");
  if (policy != nullptr) {
    const bool is_realtime = policy->value == "fifo" || policy->value == "rr";
    const std::string level = priority == nullptr ? "1" : priority->value;
    node_.options.emplace_back(
        "sched", policy->value + (is_realtime ? ":" + level : ""));
  }
  const IniEntry* const io_class = takeLast("IOSchedulingClass");
  const IniEntry* const io_level = takeLast("IOSchedulingPriority");
  if (io_class != nullptr || io_level != nullptr) {
    std::string value = io_class == nullptr ? "best-effort" : io_class->value;
    if (io_level != nullptr && value != "idle") value += ":" + io_level->value;
    node_.options.emplace_back("ionice", std::move(value));
  }
  const IniEntry* const privileges = takeLast("NoNewPrivileges");
  if (privileges != nullptr && isYes(privileges->value)) {
    node_.options.emplace_back("no-new-privs", "");
  }
}

void UnitImporter::addOutput() {
  for (const char* const key : {"StandardOutput", "StandardError"}) {
    const IniEntry* const entry = takeLast(key);
    if (entry == nullptr) continue;
    const std::string kind = textBefore(entry->value, ':');
    if (kind == "journal" || kind == "inherit" || kind == "kmsg") continue;
    if (kind != "file" && kind != "append" && kind != "truncate") {
      node_.omit(key, entry->value,
                 "the output is part of the launcher's; a script can redirect "
                 "it");
      continue;
    }
    std::string directory =
        logDirectoryFor(expanded(entry->value.substr(kind.size() + 1)));
    const auto is_log = [](const auto& option) {
      return option.first == "log-dir";
    };
    node_.omit(key, entry->value,
               "vornrun writes both streams to rotated files in a directory");
    if (std::any_of(node_.options.begin(), node_.options.end(), is_log)) {
      continue;
    }
    node_.options.emplace_back("log-dir", std::move(directory));
  }
}

void UnitImporter::addReadiness() {
  const IniEntry* const type = takeLast("Type");
  const std::string value = type == nullptr ? "simple" : type->value;
  if (startsWith(value, "notify")) {
    node_.options.emplace_back("ready", "notify");
  } else if (value == "forking") {
    node_.omit("Type", value,
               "the program must stay in the foreground; change its options");
  } else if (value == "oneshot") {
    node_.isOneshot = true;
  } else if (value == "dbus") {
    node_.omit("Type", value, "the launcher does not wait until it is ready");
  }
  addDuration("WatchdogSec", "watchdog");
  addOption("WatchdogSignal", "watchdog-signal");
}

void UnitImporter::addRestarts() {
  const IniEntry* const restart = takeLast("Restart");
  if (restart == nullptr || restart->value == "no") {
    node_.isOneshot = true;
  } else if (restart->value != "always") {
    node_.omit("Restart", restart->value,
               "a node is restarted after any exit; 'oneshot: true' turns that "
               "off");
  }
  const IniEntry* const delay = takeLast("RestartSec");
  const auto first = unitDuration(delay == nullptr ? "0" : delay->value);
  const IniEntry* const most = takeLast("RestartMaxDelaySec");
  const auto longest = most == nullptr ? first : unitDuration(most->value);
  (void)take("RestartSteps");
  if (first && longest && *longest > kRestartInterval && first->count() > 0) {
    node_.options.emplace_back(
        "backoff", durationText(*first) + ".." + durationText(*longest));
  } else if (delay != nullptr) {
    node_.omit("RestartSec", delay->value,
               "a node is restarted 5 s after its start");
  }
  const IniEntry* const burst = takeLast("StartLimitBurst");
  const IniEntry* interval = takeLast("StartLimitIntervalSec");
  if (const auto* const old = takeLast("StartLimitInterval")) interval = old;
  const long count =
      burst == nullptr ? 5 : std::strtol(burst->value.c_str(), nullptr, 10);
  const auto period = unitDuration(interval ? interval->value : "10s");
  if ((burst == nullptr && interval == nullptr) || !period) return;
  if (count <= 0 || count > 1000 || period->count() == 0) return;
  // As many starts as quickly as the launcher can do them, or the given period.
  const milliseconds quick = (count + 1) * milliseconds(kRestartInterval);
  node_.options.emplace_back(
      "give-up",
      std::to_string(count) + "/" + durationText(std::max(*period, quick)));
}

void UnitImporter::addRelations() {
  for (const char* const key :
       {"After", "Before", "Wants", "Requires", "Requisite", "BindsTo",
        "PartOf", "Upholds", "Conflicts", "PropagatesReloadTo",
        "RequiresMountsFor"}) {
    for (const std::string& unit : unitsIn(key)) {
      const bool is_imported = units_->count(unit) > 0;
      const std::string word(key);
      if (!is_imported) {
        node_.omit(key, unit, kOtherUnit);
      } else if (word == "Requires" || word == "BindsTo" || word == "PartOf" ||
                 word == "Requisite") {
        node_.omit(key, unit,
                   "'required' of that node restarts this one, also when that "
                   "node is stopped");
      } else if (word == "Conflicts") {
        node_.omit(key, unit, "the launcher runs both");
      }
    }
  }
}

void UnitImporter::addRest() {
  if (const IniEntry* const text = takeLast("Description")) {
    node_.omitted.insert(node_.omitted.begin(), {"", text->value});
  }
  for (const char* const key : {"Documentation", "WantedBy", "RequiredBy"}) {
    (void)take(key);
  }
  for (const IniEntry& entry : entries_) {
    if (taken_.count(entry.key) > 0) continue;
    const char* const advice = adviceFor(kUnitAdvice, entry.key);
    const bool is_condition =
        startsWith(entry.key, "Condition") || startsWith(entry.key, "Assert");
    node_.omit(entry.key, entry.value,
               advice != nullptr ? advice
               : is_condition    ? kConditionAdvice
                                 : kDefaultAdvice);
  }
}

}  // namespace vorn::launch
