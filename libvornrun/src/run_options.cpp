#include "run_options.h"

#include <utility>

#include "option_values.h"

namespace vorn::run {
namespace {

using Kind = Condition::Kind;

std::string notA(const std::string& value, const char* form) {
  return "'" + value + "' is not " + form;
}

/// Stores `parsed` in `member`, or returns the reason for which there is none.
template <typename Member, typename Parsed>
std::string store(Member& member, Parsed parsed, const std::string& value,
                  const char* form) {
  if (!parsed) return notA(value, form);
  member = static_cast<Member>(*std::move(parsed));
  return "";
}

template <typename Item>
std::string add(std::vector<Item>& items, std::optional<Item> parsed,
                const std::string& value, const char* form) {
  if (!parsed) return notA(value, form);
  items.push_back(*std::move(parsed));
  return "";
}

std::string storeDuration(milliseconds& member, const std::string& value,
                          long least = 1) {
  const auto parsed = parseDuration(value);
  if (!parsed || parsed->count() < least) {
    return notA(value, "a duration such as 500ms, 5s or 2min");
  }
  member = *parsed;
  return "";
}

std::string storeSize(uint64_t& member, const std::string& value) {
  const auto parsed = parseSize(value);
  if (!parsed || *parsed == 0) return notA(value, "a size such as 64K or 10M");
  member = *parsed;
  return "";
}

std::string storeSignal(int& member, const std::string& value) {
  return store(member, parseSignal(value), value,
               "a signal such as TERM, SIGKILL or 9");
}

std::string storeYesNo(bool& member, const std::string& value) {
  if (value != "yes" && value != "no") return notA(value, "yes or no");
  member = value == "yes";
  return "";
}

std::string storeDirectory(std::string& member, const std::string& value) {
  if (value.empty() || value[0] != '/') return notA(value, "an absolute path");
  member = value;
  return "";
}

/// The condition if it is one of these kinds.
std::optional<Condition> parseOneOf(const std::string& value,
                                    std::initializer_list<Kind> kinds) {
  auto parsed = parseCondition(value);
  for (const Kind kind : kinds) {
    if (parsed && parsed->kind == kind) return parsed;
  }
  return std::nullopt;
}

std::string setUser(RunSettings& settings, const std::string& value) {
  const size_t colon = value.find(':');
  settings.user = value.substr(0, colon);
  settings.group = colon == std::string::npos ? "" : value.substr(colon + 1);
  const bool has_group = colon == std::string::npos || !settings.group.empty();
  return settings.user.empty() || !has_group ? notA(value, "USER or USER:GROUP")
                                             : "";
}

std::string setUmask(RunSettings& settings, const std::string& value) {
  mode_t mode = 0;
  const bool is_octal =
      !value.empty() && value.size() <= 4 &&
      value.find_first_not_of("01234567") == std::string::npos;
  for (const char c : value) mode = mode * 8 + static_cast<mode_t>(c - '0');
  if (!is_octal || mode > 0777) return notA(value, "an octal mask such as 022");
  settings.umask = mode;
  return "";
}

std::string setProbe(RunSettings& settings, const std::string& value) {
  return store(
      settings.probe,
      parseOneOf(value, {Kind::EXEC, Kind::HTTP, Kind::TCP, Kind::FILE}), value,
      "exec:COMMAND, http://..., tcp:HOST:PORT or file:/PATH");
}

std::string setReady(RunSettings& settings, const std::string& value) {
  return store(
      settings.ready,
      parseOneOf(value, {Kind::NOTIFY, Kind::FD, Kind::PATH, Kind::TCP,
                         Kind::UNIX, Kind::EXEC, Kind::HTTP}),
      value,
      "notify, fd:N, path:/PATH, tcp:HOST:PORT, unix:/PATH, exec:COMMAND or "
      "http://...");
}

std::string addWaitFor(RunSettings& settings, const std::string& value) {
  return add(settings.waitFor,
             parseOneOf(value, {Kind::PATH, Kind::TCP, Kind::UNIX, Kind::EXEC,
                                Kind::HTTP}),
             value,
             "path:/PATH, tcp:HOST:PORT, unix:/PATH, exec:COMMAND or "
             "http://...");
}

// The parameters of every function in the table.
using S = RunSettings;
using V = const std::string;

const std::vector<RunOption>& identityOptions() {
  static const std::vector<RunOption> options = {
      {"user", "USER[:GROUP]", "Run as this user, with all of its groups",
       setUser, "Identity and surroundings"},
      {"directory", "DIR", "Run in this directory",
       [](S& s, V& v) { return storeDirectory(s.directory, v); }},
      {"umask", "MODE", "Set the file mode mask (octal)", setUmask},
      {"env", "NAME=VALUE", "Set a variable (repeatable)",
       [](S& s, V& v) {
         return add(s.environment, parseVariable(v), v, "NAME=VALUE");
       }},
      {"env-file", "FILE", "Read variables; -FILE may be missing (repeatable)",
       [](S& s, V& v) {
         s.environmentFiles.push_back(v);
         return std::string();
       }},
      {"clear-env", nullptr, "Start without the inherited variables",
       [](S& s, V&) {
         s.clearEnvironment = true;
         return std::string();
       }},
  };
  return options;
}

const std::vector<RunOption>& processOptions() {
  static const std::vector<RunOption> options = {
      {"limit", "NAME=SOFT[:HARD]",
       "Set a resource limit, as prlimit(1) (repeatable)",
       [](S& s, V& v) {
         return add(s.limits, parseLimit(v), v,
                    "a limit such as nofile=1024:4096 or core=unlimited");
       }},
      {"nice", "N", "Set the nice value, -20 to 19",
       [](S& s, V& v) {
         return store(s.nice, parseNumber(v, -20, 19), v,
                      "a number from -20 to 19");
       }},
      {"sched", "POLICY", "Set the policy: fifo:N, rr:N, batch, idle, other",
       [](S& s, V& v) {
         return store(s.scheduling, parseScheduling(v), v,
                      "fifo:1 to fifo:99, rr:1 to rr:99, batch, idle or other");
       }},
      {"cpu-list", "LIST", "Run on these processors, such as 0,2-3",
       [](S& s, V& v) {
         return store(s.cpus, parseCpuList(v), v, "a list such as 0,2-3");
       }},
      {"ionice", "CLASS[:LEVEL]",
       "Set the I/O priority: realtime, best-effort, idle",
       [](S& s, V& v) {
         return store(s.ioPriority, parseIoPriority(v), v,
                      "realtime:0..7, best-effort:0..7 or idle");
       }},
      {"oom-score-adj", "N", "Set the score of the OOM killer, -1000 to 1000",
       [](S& s, V& v) {
         return store(s.oomScoreAdjust, parseNumber(v, -1000, 1000), v,
                      "a number from -1000 to 1000");
       }},
      {"no-new-privs", nullptr, "Ignore setuid bits and file capabilities",
       [](S& s, V&) {
         s.noNewPrivileges = true;
         return std::string();
       }},
      {"close-fds", "yes|no", "Close descriptors from 3 up (default: yes)",
       [](S& s, V& v) { return storeYesNo(s.closesDescriptors, v); }},
      {"pdeathsig", "SIGNAL", "Receive SIGNAL when the launcher exits",
       [](S& s, V& v) { return storeSignal(s.parentDeathSignal, v); }},
      {"cgroup", nullptr, "Run in a control group named after the node",
       [](S& s, V&) {
         s.usesControlGroup = true;
         return std::string();
       }},
  };
  return options;
}

const std::vector<RunOption>& logOptions() {
  static const std::vector<RunOption> options = {
      {"log-prefix", nullptr, "Write node and stream before each line",
       [](S& s, V&) {
         s.logPrefix = true;
         return std::string();
       },
       "Logs"},
      {"log", "journal", "Send the output to the journal",
       [](S& s, V& v) {
         s.logJournal = v == "journal";
         return s.logJournal ? std::string() : notA(v, "journal");
       }},
      {"log-dir", "DIR", "Write the output to rotated files in DIR",
       [](S& s, V& v) { return storeDirectory(s.logDirectory, v); }},
      {"log-size", "SIZE", "Rotate a file at SIZE (default: 10M)",
       [](S& s, V& v) { return storeSize(s.logSize, v); }},
      {"log-keep", "N", "Keep N rotated files (default: 5)",
       [](S& s, V& v) {
         return store(s.logKeep, parseNumber(v, 0, 10000), v,
                      "a number from 0 to 10000");
       }},
      {"log-total", "SIZE", "Limit all files to SIZE (default: 100M)",
       [](S& s, V& v) { return storeSize(s.logTotal, v); }},
      {"log-compress", nullptr, "Compress rotated files with gzip",
       [](S& s, V&) {
         s.logCompress = true;
         return std::string();
       }},
      {"pty", nullptr, "Connect the output to a terminal: no buffering",
       [](S& s, V&) {
         s.pty = true;
         return std::string();
       }},
  };
  return options;
}

const std::vector<RunOption>& healthOptions() {
  static const std::vector<RunOption> options = {
      {"wait-for", "CONDITION", "Wait for path:, tcp:, unix:, exec:, http://",
       addWaitFor, "Readiness and health"},
      {"wait-timeout", "TIME", "Fail if the conditions do not hold after TIME",
       [](S& s, V& v) { return storeDuration(s.waitTimeout, v); }},
      {"ready", "CONDITION", "Ready when it holds, or with notify or fd:N",
       setReady},
      {"watchdog", "TIME", "Stop the program after TIME without WATCHDOG=1",
       [](S& s, V& v) { return storeDuration(s.watchdog, v); }},
      {"watchdog-signal", "SIGNAL", "Send SIGNAL first (default: TERM)",
       [](S& s, V& v) { return storeSignal(s.watchdogSignal, v); }},
      {"probe", "CONDITION",
       "Check health by exec:, http://, tcp: or file:", setProbe},
      {"probe-period", "TIME", "Check every TIME (default: 10s)",
       [](S& s, V& v) { return storeDuration(s.probePeriod, v); }},
      {"probe-timeout", "TIME", "Limit one check to TIME (default: 1s)",
       [](S& s, V& v) { return storeDuration(s.probeTimeout, v); }},
      {"probe-failures", "N", "Stop the program after N failures (default: 3)",
       [](S& s, V& v) {
         return store(s.probeFailures, parseNumber(v, 1, 1000), v,
                      "a number from 1 to 1000");
       }},
      {"probe-delay", "TIME", "Start checking after TIME (default: 0s)",
       [](S& s, V& v) { return storeDuration(s.probeDelay, v, 0); }},
  };
  return options;
}

const std::vector<RunOption>& restartOptions() {
  static const std::vector<RunOption> options = {
      {"backoff", "FIRST..LONGEST", "Delay quick restarts, such as 1s..60s",
       [](S& s, V& v) {
         return store(s.backoff, parseBackoff(v), v, "a range such as 1s..60s");
       },
       "Crash loops and state"},
      {"reset-after", "TIME", "A run this long ends the delays (default: 60s)",
       [](S& s, V& v) { return storeDuration(s.resetAfter, v); }},
      {"give-up", "N/TIME", "Disable the node after N starts within TIME",
       [](S& s, V& v) {
         return store(s.giveUp, parseGiveUp(v), v, "a rate such as 5/60s");
       }},
      {"state-dir", "DIR",
       "Keep the state files in DIR (default: /run/vornrun)",
       [](S& s, V& v) { return storeDirectory(s.stateDirectory, v); }},
      {"expand", nullptr, "Expand $VAR and ${VAR} in the arguments",
       [](S& s, V&) {
         s.expandsVariables = true;
         return std::string();
       }},
  };
  return options;
}

/// "  --name VALUE          help"
std::string helpLine(const std::string& left, const char* help) {
  constexpr size_t kColumn = 28;
  std::string line = "  " + left;
  if (line.size() + 2 > kColumn) {
    line += "\n" + std::string(kColumn, ' ');
  } else {
    line.resize(kColumn, ' ');
  }
  return line + help + "\n";
}

}  // namespace

const std::vector<RunOption>& runOptions() {
  static const std::vector<RunOption> options = [] {
    std::vector<RunOption> all;
    for (const auto* group :
         {&identityOptions(), &processOptions(), &logOptions(),
          &healthOptions(), &restartOptions()}) {
      all.insert(all.end(), group->begin(), group->end());
    }
    return all;
  }();
  return options;
}

const RunOption* findRunOption(std::string_view name) {
  for (const RunOption& option : runOptions()) {
    if (name == option.name) return &option;
  }
  return nullptr;
}

std::string runHelp() {
  std::string text =
      "Usage: vornrun [OPTION...] [--] PROGRAM [ARGUMENT...]\n"
      "\n"
      "Applies the settings and executes PROGRAM in the same process.\n";
  for (const RunOption& option : runOptions()) {
    if (option.heading != nullptr) {
      text += "\n" + std::string(option.heading) + ":\n";
    }
    std::string left = std::string("--") + option.name;
    if (option.placeholder != nullptr)
      left += std::string(" ") + option.placeholder;
    text += helpLine(left, option.help);
  }
  text += "\nGeneral:\n";
  text += helpLine("--config FILE", "Read options and the program from FILE");
  text += helpLine("-h, --help", "Print this help");
  text += helpLine("--version", "Print the version");
  return text + "\nvornrun(8) describes the options.\n";
}

}  // namespace vorn::run
