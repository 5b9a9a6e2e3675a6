#include "import/process_compose.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <optional>
#include <set>

#include "import/command_words.h"
#include "import/node_order.h"
#include "import/process_compose_values.h"
#include "output/text.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

constexpr int kMostReplicas = 1000;

// The keys of a process without a counterpart.
constexpr KeyAdvice kProcessAdvice[] = {
    {" is_daemon launch_timeout_seconds ",
     "the program must stay in the foreground"},
    {" ready_log_line ",
     "vornrun does not read the output; use its option --ready"},
    {" namespace ", "patterns such as 'web_*' select nodes"},
    {" log_configuration ",
     "see the options --log-size, --log-keep and --log-compress of vornrun"},
    {" is_foreground is_interactive ",
     "a node has the launcher's standard input"},
    {" is_elevated ", "start the launcher as root; see --user of vornrun"},
    {" schedule ", "the launcher has no schedule; use a timer of systemd"},
    {" vars is_template_disabled ", "nothing expands templates"},
};
constexpr char kNoCounterpart[] = "no counterpart";

/// One file.
class ComposeImporter : private ComposeValues {
 public:
  ComposeImporter(const SourceText& file, Imported& imported)
      : ComposeValues(file), file_(file), imported_(imported) {}

  void import();

  std::map<std::string, std::set<std::string>> before;  // by process

 private:
  void addGlobals(const YAML::Node& root);
  void addProcess(const std::string& name, const YAML::Node& process);
  void addCommand(const YAML::Node& process, ImportedNode& node) const;
  void addDependencies(const YAML::Node& process, ImportedNode& node);
  void addProbes(const YAML::Node& process, ImportedNode& node) const;
  void addAvailability(const YAML::Node& process, ImportedNode& node) const;
  void addShutdown(const YAML::Node& process, ImportedNode& node) const;
  void addOptions(const YAML::Node& process, ImportedNode& node) const;
  void addRest(const YAML::Node& process, ImportedNode& node) const;

  const SourceText& file_;
  Imported& imported_;
  YAML::Node processes_;
  std::vector<std::string> shell_ = {"/bin/bash", "-c"};
};

/// Whether a shell must run the command: it has more than words, or its first
/// word is one of the shell.
bool needsShell(const std::string& command) {
  static const std::set<std::string> builtins = {
      ".",    "cd",   "command", "eval", "exec",  "export",
      "for",  "if",   "read",    "set",  "shift", "test",
      "time", "trap", "ulimit",  "wait", "while", "source"};
  const bool is_simple =
      std::all_of(command.begin(), command.end(), [](char letter) {
        return std::isalnum(static_cast<unsigned char>(letter)) != 0 ||
               std::string_view(" _./:@%+,-=").find(letter) !=
                   std::string_view::npos;
      });
  const auto words = split(command, ' ');
  return !is_simple || words.empty() || builtins.count(words[0]) > 0 ||
         words[0].find('=') != std::string::npos;
}

void ComposeImporter::addCommand(const YAML::Node& process,
                                 ImportedNode& node) const {
  std::vector<std::string> words;
  if (const YAML::Node entrypoint = process["entrypoint"]; entrypoint) {
    if (!entrypoint.IsSequence()) fail(entrypoint, "entrypoint is not a list");
    for (const YAML::Node& word : entrypoint) {
      words.push_back(textOf(word, "a word of entrypoint"));
    }
  } else if (const YAML::Node value = process["command"]; value) {
    const std::string command = textOf(value, "command");
    if (needsShell(command)) {
      words = shell_;
      words.push_back(command);
      if (!startsWith(command, "exec ")) {
        node.omitted.push_back(
            {"",
             "A shell runs the command, and only the shell gets the "
             "SIGTERM of a stop: write 'exec' before its last program."});
      }
    } else {
      words = split(command, ' ');
    }
  }
  if (words.empty())
    fail(process, "process '" + node.name + "' has no command");
  node.program = words.front();
  node.arguments.assign(words.begin() + 1, words.end());
}

void ComposeImporter::addDependencies(const YAML::Node& process,
                                      ImportedNode& node) {
  for (const auto& each : mapping(process, "depends_on")) {
    const std::string other = textOf(each.first, "depends_on");
    before[node.name].insert(other);
    const YAML::Node value = each.second;
    const std::string condition = value.IsMap() && value["condition"]
                                      ? textOf(value["condition"], "condition")
                                      : "process_started";
    if (condition == "process_started") continue;
    const std::string setting = "depends_on " + other;
    const YAML::Node dependency = mapping(processes_, other.c_str());
    const auto probe = readProbe(mapping(dependency, "readiness_probe"));
    if (condition == "process_healthy" && probe) {
      node.options.emplace_back("wait-for", probe->condition);
    } else {
      node.omit(setting, condition,
                "the launcher does not wait; use --wait-for of vornrun with a "
                "file, socket or command that shows it");
    }
  }
}

void ComposeImporter::addProbes(const YAML::Node& process,
                                ImportedNode& node) const {
  if (const auto ready = readProbe(mapping(process, "readiness_probe"))) {
    node.options.emplace_back("ready", ready->port);
    if (ready->port != ready->condition) {
      node.omit("readiness_probe", ready->condition,
                "--ready only checks that the port accepts connections");
    }
  }
  const YAML::Node probe = mapping(process, "liveness_probe");
  const auto alive = readProbe(probe);
  if (!alive) return;
  node.options.emplace_back("probe", alive->condition);
  const auto add = [&](const char* key, const char* option, const char* unit) {
    if (!probe[key]) return;
    const auto number = static_cast<long>(numberOf(probe[key], key));
    node.options.emplace_back(option, std::to_string(number) + unit);
  };
  add("period_seconds", "probe-period", "s");
  add("timeout_seconds", "probe-timeout", "s");
  add("failure_threshold", "probe-failures", "");
  add("initial_delay_seconds", "probe-delay", "s");
}

void ComposeImporter::addAvailability(const YAML::Node& process,
                                      ImportedNode& node) const {
  const YAML::Node availability = mapping(process, "availability");
  const std::string restart = availability["restart"]
                                  ? textOf(availability["restart"], "restart")
                                  : "no";
  if (restart == "no" || restart == "exit_on_failure") node.isOneshot = true;
  if (restart != "no" && restart != "always") {
    node.omit("availability.restart", restart,
              restart == "exit_on_failure"
                  ? "the launcher runs on after the failure of a node"
                  : "a node is restarted after any exit; 'oneshot: true' turns "
                    "that off");
  }
  for (const auto& each : availability) {
    const std::string key = textOf(each.first, "availability");
    if (key == "restart") continue;
    if (key == "backoff_seconds" &&
        numberOf(each.second, key) > kRestartInterval.count()) {
      const std::string delay = textOf(each.second, key) + "s";
      std::string range = delay;
      range.append("..").append(delay);
      node.options.emplace_back("backoff", range);
    } else if (key == "backoff_seconds") {
      node.omit(key, textOf(each.second, key),
                "a node is restarted 5 s after its start");
    } else if (key == "max_restarts") {
      node.omit(key, textOf(each.second, key),
                "the option --give-up N/TIME of vornrun limits starts within a "
                "time");
    } else if (each.second.IsScalar() && each.second.Scalar() != "false") {
      node.omit("availability." + key, each.second.Scalar(), kNoCounterpart);
    }
  }
}

void ComposeImporter::addShutdown(const YAML::Node& process,
                                  ImportedNode& node) const {
  for (const auto& each : mapping(process, "shutdown")) {
    const std::string key = textOf(each.first, "shutdown");
    const std::string value = textOf(each.second, key);
    if (key == "signal" && value == "15") continue;
    if (key == "timeout_seconds" && value == "10") continue;
    node.omit("shutdown." + key, value,
              "the launcher sends SIGTERM to the process of the node, and "
              "SIGKILL after 10 s");
  }
}

void ComposeImporter::addOptions(const YAML::Node& process,
                                 ImportedNode& node) const {
  if (const YAML::Node value = process["working_dir"]; value) {
    node.options.emplace_back("directory", textOf(value, "working_dir"));
  }
  if (const YAML::Node value = process["env_file"]; value) {
    node.options.emplace_back("env-file", textOf(value, "env_file"));
  }
  if (const YAML::Node value = process["is_tty"];
      value && boolOf(value, "is_tty")) {
    node.options.emplace_back("pty", "");
  }
  if (const YAML::Node value = process["disabled"]; value) {
    node.isStarted = !boolOf(value, "disabled");
  }
  if (const YAML::Node value = process["log_location"]; value) {
    const std::filesystem::path path(textOf(value, "log_location"));
    std::string directory = logDirectoryFor(path.string());
    node.omit("log_location", path.string(),
              "vornrun writes files in the directory " + directory);
    node.options.emplace_back("log-dir", std::move(directory));
  }
  if (const YAML::Node value = process["environment"];
      value && !value.IsNull()) {
    node.environment = readEnvironment(value, node.omitted);
  }
}

void ComposeImporter::addRest(const YAML::Node& process,
                              ImportedNode& node) const {
  static const std::set<std::string> converted = {
      "command",      "entrypoint",     "depends_on",  "readiness_probe",
      "availability", "liveness_probe", "shutdown",    "working_dir",
      "env_file",     "is_tty",         "disabled",    "log_location",
      "environment",  "replicas",       "description", "disable_ansi_colors"};
  if (const YAML::Node text = process["description"]; text) {
    node.omitted.insert(node.omitted.begin(),
                        {"", textOf(text, "description")});
  }
  for (const auto& each : process) {
    const std::string key = textOf(each.first, "a key");
    if (converted.count(key) > 0) continue;
    const char* const advice = adviceFor(kProcessAdvice, key);
    node.omit(key, each.second.IsScalar() ? each.second.Scalar() : "...",
              advice == nullptr ? kNoCounterpart : advice);
  }
}

void ComposeImporter::addProcess(const std::string& name,
                                 const YAML::Node& process) {
  if (!process.IsMap())
    fail(process, "process '" + name + "' is not a mapping");
  ImportedNode node;
  node.name = name;
  addCommand(process, node);
  addOptions(process, node);
  addDependencies(process, node);
  addProbes(process, node);
  addAvailability(process, node);
  addShutdown(process, node);
  addRest(process, node);
  const YAML::Node replicas = process["replicas"];
  const double count = replicas ? numberOf(replicas, "replicas") : 1;
  if (count > kMostReplicas) fail(replicas, "more than 1000 replicas");
  if (count <= 1) {
    imported_.nodes.push_back(std::move(node));
    return;
  }
  for (int i = 0; i < static_cast<int>(count); ++i) {
    node.name = name + "-" + std::to_string(i);
    before[node.name] = before[name];
    imported_.nodes.push_back(node);
  }
}

void ComposeImporter::addGlobals(const YAML::Node& root) {
  for (const auto& each : root) {
    const std::string key = textOf(each.first, "a key");
    const YAML::Node value = each.second;
    if (key == "processes" || key == "version" || value.IsNull()) continue;
    if (key == "environment") {
      imported_.environment = readEnvironment(value, imported_.omitted);
    } else if (key == "shell" && value.IsMap() && value["shell_command"]) {
      shell_ = {textOf(value["shell_command"], "shell_command"),
                value["shell_argument"]
                    ? textOf(value["shell_argument"], "shell_argument")
                    : "-c"};
    } else {
      imported_.omitted.push_back(
          {key + "=" + (value.IsScalar() ? value.Scalar() : "..."),
           kNoCounterpart});
    }
  }
}

void ComposeImporter::import() {
  YAML::Node root;
  try {
    root = YAML::Load(file_.text());
  } catch (const YAML::Exception& error) {
    throw ImportError(file_, error.mark.line + 1, error.msg);
  }
  if (!root.IsMap()) throw ImportError(file_, 0, "no mapping with 'processes'");
  processes_ = mapping(root, "processes");
  if (!root["processes"]) throw ImportError(file_, 0, "no 'processes'");
  addGlobals(root);
  for (const auto& each : processes_) {
    addProcess(textOf(each.first, "a name"), each.second);
  }
}

}  // namespace

Imported importProcessCompose(const std::vector<SourceText>& files) {
  Imported imported;
  std::map<std::string, std::set<std::string>> before;
  for (const SourceText& file : files) {
    ComposeImporter importer(file, imported);
    importer.import();
    before.merge(importer.before);
  }
  orderNodes(imported, before);
  return imported;
}

}  // namespace vorn::launch
