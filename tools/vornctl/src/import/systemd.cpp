#include "import/systemd.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include "import/command_words.h"
#include "import/ini_text.h"
#include "import/node_order.h"
#include "output/text.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

constexpr char kUnitSuffix[] = ".service";

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

/// A duration such as "1min 30s" or "5"; nothing for others.
std::optional<milliseconds> unitDuration(const std::string& text) {
  static const std::map<std::string, double> units = {
      {"", 1000},      {"s", 1000},       {"sec", 1000},    {"ms", 1},
      {"msec", 1},     {"us", 0.001},     {"min", 60e3},    {"m", 60e3},
      {"minute", 6e4}, {"minutes", 60e3}, {"second", 1000}, {"seconds", 1000},
      {"h", 36e5},     {"hr", 36e5},      {"hour", 36e5},   {"hours", 36e5},
      {"d", 864e5},    {"day", 864e5},    {"days", 864e5}};
  double total = 0;
  const char* position = text.c_str();
  if (*position == '\0') return std::nullopt;
  while (*position != '\0') {
    char* end = nullptr;
    const double number = std::strtod(position, &end);
    if (end == position || number < 0 || number > 1e9) return std::nullopt;
    while (*end == ' ') ++end;
    std::string unit;
    while (std::isalpha(static_cast<unsigned char>(*end)) != 0) unit += *end++;
    while (*end == ' ') ++end;
    const auto found = units.find(unit);
    if (found == units.end()) return std::nullopt;
    total += number * found->second;
    position = end;
  }
  if (total > 1e10) return std::nullopt;
  return milliseconds(static_cast<int64_t>(total));
}

/// The duration as a value for vornrun.
std::string durationText(milliseconds duration) {
  const auto count = duration.count();
  return count % 1000 == 0 ? std::to_string(count / 1000) + "s"
                           : std::to_string(count) + "ms";
}

bool isYes(const std::string& value) {
  const std::string word = lowerCase(value);
  return word == "yes" || word == "true" || word == "on" || word == "1";
}

/// The text before the first `separator`, or all.
std::string textBefore(const std::string& text, char separator) {
  return text.substr(0, text.find(separator));
}

std::string nodeNameOf(const std::string& unit) {
  return unit.substr(0, unit.rfind('.'));
}

bool isNameCharacter(char character) {
  return std::isalnum(static_cast<unsigned char>(character)) != 0 ||
         character == '_';
}

/// One service unit.
class UnitImporter {
 public:
  UnitImporter(const SourceText& file, std::string name)
      : file_(file), name_(std::move(name)) {
    node_.name = nodeNameOf(name_);
    read();
  }

  /// Converts the settings. `isImported` says whether a unit is a node.
  void convert(const std::set<std::string>& units) {
    units_ = &units;
    addCommand();
    addIdentity();
    addVariables();
    addLimits();
    addScheduling();
    addOutput();
    addReadiness();
    addRestarts();
    addRelations();
    addRest();
  }

  ImportedNode& node() { return node_; }
  /// The units in this setting, such as After=.
  std::vector<std::string> unitsIn(const std::string& key) {
    std::vector<std::string> units;
    for (const IniEntry* entry : take(key)) {
      for (const std::string& unit : split(expanded(entry->value), ' ')) {
        units.push_back(unit);
      }
    }
    return units;
  }

 private:
  void read();
  std::vector<const IniEntry*> take(const std::string& key);
  const IniEntry* takeLast(const std::string& key);
  std::string expanded(const std::string& text);
  std::string specifier(char letter) const;
  void addOption(const std::string& key, const char* option);
  void addDuration(const std::string& key, const char* option);

  void addCommand();
  void addWords(const IniEntry& entry, std::vector<std::string> words);
  void addIdentity();
  void addVariables();
  void addLimits();
  void addScheduling();
  void addOutput();
  void addReadiness();
  void addRestarts();
  void addRelations();
  void addRest();

  const SourceText& file_;
  std::string name_;
  std::vector<IniEntry> entries_;  // of [Unit], [Service] and [Install]
  std::set<std::string> taken_;    // the keys that are converted
  const std::set<std::string>* units_ = nullptr;
  ImportedNode node_;
};

void UnitImporter::read() {
  bool is_service = false;
  for (const IniSection& section : readUnitText(file_)) {
    if (startsWith(section.name, "X-")) continue;
    is_service = is_service || section.name == "Service";
    for (const IniEntry& entry : section.entries) {
      // An empty value removes the earlier ones.
      const auto is_same = [&](const IniEntry& other) {
        return other.key == entry.key;
      };
      const bool is_set = startsWith(entry.key, "Capability");
      if (entry.value.empty() && !is_set) {
        entries_.erase(
            std::remove_if(entries_.begin(), entries_.end(), is_same),
            entries_.end());
      } else if (!startsWith(entry.key, "X-")) {
        entries_.push_back(entry);
      }
    }
  }
  if (is_service) return;
  throw ImportError(file_, 0,
                    "no section [Service]; only services can be imported");
}

std::vector<const IniEntry*> UnitImporter::take(const std::string& key) {
  taken_.insert(key);
  std::vector<const IniEntry*> found;
  for (const IniEntry& entry : entries_) {
    if (entry.key == key) found.push_back(&entry);
  }
  return found;
}

const IniEntry* UnitImporter::takeLast(const std::string& key) {
  const auto found = take(key);
  return found.empty() ? nullptr : found.back();
}

/// The value of a specifier; empty if it depends on the machine.
std::string UnitImporter::specifier(char letter) const {
  const std::string& plain = node_.name;
  const size_t at = plain.find('@');
  std::string instance = at == std::string::npos ? "" : plain.substr(at + 1);
  switch (letter) {
    case 'n':
      return name_;
    case 'N':
      return plain;
    case 'p':
      return textBefore(plain, '@');
    case 'i':
    case 'I':
      return instance;
    case 't':
      return "/run";
    case 'S':
      return "/var/lib";
    case 'C':
      return "/var/cache";
    case 'L':
      return "/var/log";
    case 'E':
      return "/etc";
    case 'T':
      return "/tmp";
    case 'V':
      return "/var/tmp";
    case 'h':
      return "/root";
    case 'u':
    case 'g':
      return "root";
    case 'U':
    case 'G':
      return "0";
    case '%':
      return "%";
    default:
      return "";
  }
}

std::string UnitImporter::expanded(const std::string& text) {
  std::string result;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%' || i + 1 == text.size()) {
      result += text[i];
      continue;
    }
    const std::string value = specifier(text[++i]);
    result += value;
    if (value.empty()) {
      node_.omitted.push_back({std::string("%") + text[i] + " in " + text,
                               "write the value of the specifier"});
    }
  }
  return result;
}

void UnitImporter::addOption(const std::string& key, const char* option) {
  const IniEntry* const entry = takeLast(key);
  if (entry != nullptr) {
    node_.options.emplace_back(option, expanded(entry->value));
  }
}

void UnitImporter::addDuration(const std::string& key, const char* option) {
  const IniEntry* const entry = takeLast(key);
  if (entry == nullptr) return;
  const auto duration = unitDuration(entry->value);
  if (!duration) {
    node_.omit(key, entry->value, "not a time for vornrun");
  } else if (duration->count() > 0) {
    node_.options.emplace_back(option, durationText(*duration));
  }
}

void UnitImporter::addCommand() {
  const auto entries = take("ExecStart");
  if (entries.empty()) throw ImportError(file_, 0, "no ExecStart");
  const IniEntry& entry = *entries.front();
  auto words = unitWords(expanded(entry.value));
  if (!words) {
    throw ImportError(file_, entry.line, "a quote in ExecStart is not closed");
  }
  addWords(entry, std::move(*words));
  for (size_t i = 1; i < entries.size(); ++i) {
    node_.omit("ExecStart", entries[i]->value,
               "start a script that runs the commands");
  }
}

/// Whether a word contains a variable, which systemd expands.
bool hasVariable(const std::string& word) {
  for (size_t i = 0; i + 1 < word.size(); ++i) {
    if (word[i] != '$') continue;
    if (isNameCharacter(word[i + 1]) || word[i + 1] == '{') return true;
    ++i;
  }
  return false;
}

/// The word for a shell: "$NAME" is split there as well, "${NAME}" is not, and
/// "$$" is a '$'.
std::string shellWord(const std::string& word) {
  if (word.size() > 1 && word[0] == '$' && isNameCharacter(word[1])) {
    return word;
  }
  std::string quoted = "\"";
  for (size_t i = 0; i < word.size(); ++i) {
    const bool is_dollar = word.compare(i, 2, "$$") == 0;
    if (is_dollar || word[i] == '"' || word[i] == '\\' || word[i] == '`') {
      quoted += '\\';
    }
    quoted += word[i];
    if (is_dollar) ++i;
  }
  return quoted + '"';
}

std::string withSingleDollars(std::string word) {
  for (size_t i = word.find("$$"); i != std::string::npos;
       i = word.find("$$", i + 1)) {
    word.erase(i, 1);
  }
  return word;
}

void UnitImporter::addWords(const IniEntry& entry,
                            std::vector<std::string> words) {
  if (words.empty()) throw ImportError(file_, entry.line, "no program");
  const size_t begin = words[0].find_first_not_of("-@:+!|");
  const std::string prefixes = words[0].substr(0, begin);
  words[0].erase(0, begin);
  const auto has = [&](char prefix) {
    return prefixes.find(prefix) != std::string::npos;
  };
  if (has('@') && words.size() > 1) {
    node_.omit("ExecStart", entry.value,
               "'@': the program gets its path as argv[0]");
    words.erase(words.begin() + 1);
  }
  if (has('+') || has('!')) {
    node_.omit("ExecStart", entry.value,
               "'+' and '!': the program gets the user of the other settings");
  }
  if (!has(':') && std::any_of(words.begin(), words.end(), hasVariable)) {
    std::string command = "exec";
    for (const std::string& word : words) command += " " + shellWord(word);
    words = {"/bin/sh", "-c", command};
  } else if (!has(':')) {
    std::transform(words.begin(), words.end(), words.begin(),
                   withSingleDollars);
  }
  node_.program = words.front();
  node_.arguments.assign(words.begin() + 1, words.end());
}

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

/// The name of the unit in a file; systemctl cat writes it in a comment.
std::string unitNameOf(const SourceText& file) {
  std::string name = std::filesystem::path(file.name()).filename().string();
  if (file.isStandardInput()) {
    const std::string first(file.line(1));
    name = startsWith(first, "# /")
               ? std::filesystem::path(first.substr(2)).filename().string()
               : std::string("node") + kUnitSuffix;
  }
  const size_t end = name.rfind(kUnitSuffix);
  const bool is_service = end != std::string::npos && end > 0 &&
                          end + sizeof(kUnitSuffix) - 1 == name.size();
  if (is_service) return name;
  throw ImportError(
      file, 0,
      std::string("the name of a unit must end with '") + kUnitSuffix + "'");
}

/// Whether the restart of a node restarts the other one.
bool isRestartedWith(const Imported& imported,
                     const std::map<std::string, size_t>& index,
                     const std::string& node, const std::string& other) {
  if (node == other) return true;
  // Without cycles the recursion ends.
  const auto& required = imported.nodes[index.at(node)].required;
  return std::any_of(required.begin(), required.end(),
                     [&](const std::string& next) {
                       return isRestartedWith(imported, index, next, other);
                     });
}

/// Makes the nodes whose restart restarts this one require it, without a cycle,
/// which would deadlock the launcher. `index` is by node.
void addRequired(UnitImporter& unit, const std::map<std::string, size_t>& index,
                 Imported& imported) {
  const std::string& name = unit.node().name;
  for (const char* const key : {"Requires", "Requisite", "BindsTo", "PartOf"}) {
    for (const std::string& other : unit.unitsIn(key)) {
      const auto found = index.find(nodeNameOf(other));
      if (found == index.end()) continue;
      if (isRestartedWith(imported, index, name, found->first)) continue;
      auto& required = imported.nodes[found->second].required;
      if (std::count(required.begin(), required.end(), name) == 0) {
        required.push_back(name);
      }
    }
  }
}

}  // namespace

Imported importSystemd(const std::vector<SourceText>& files) {
  std::vector<UnitImporter> units;
  std::set<std::string> names;
  std::map<std::string, size_t> index;
  for (const SourceText& file : files) {
    const std::string name = unitNameOf(file);
    if (!names.insert(name).second) {
      throw ImportError(file, 0, "a second unit " + name);
    }
    index[nodeNameOf(name)] = units.size();
    units.emplace_back(file, name);
  }
  Imported imported;
  std::map<std::string, std::set<std::string>> earlier;
  for (UnitImporter& unit : units) {
    unit.convert(names);
    for (const std::string& other : unit.unitsIn("After")) {
      earlier[unit.node().name].insert(nodeNameOf(other));
    }
    for (const std::string& other : unit.unitsIn("Before")) {
      earlier[nodeNameOf(other)].insert(unit.node().name);
    }
    imported.nodes.push_back(unit.node());
  }
  for (UnitImporter& unit : units) addRequired(unit, index, imported);
  orderNodes(imported, earlier);
  return imported;
}

}  // namespace vorn::launch
