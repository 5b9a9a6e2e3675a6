#include "live/running_nodes.h"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "live/node_processes.h"
#include "live/proc_file.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

using Values = std::map<std::string, std::string>;

Values valuesIn(const std::vector<std::string>& environment) {
  Values values;
  for (const std::string& entry : environment) {
    const size_t sign = entry.find('=');
    if (sign != std::string::npos) {
      values.emplace(entry.substr(0, sign), entry.substr(sign + 1));
    }
  }
  return values;
}

/// Variables that the launcher or a shell sets.
bool isSetByPrograms(const std::string& name) {
  static const std::set<std::string> shell = {"PWD", "OLDPWD", "SHLVL", "_"};
  return shell.count(name) > 0 || startsWith(name, "VORN_") ||
         startsWith(name, "__VORN_");
}

bool endsWithAll(const std::vector<std::string>& words,
                 const std::vector<std::string>& last) {
  return words.size() >= last.size() &&
         std::equal(last.rbegin(), last.rend(), words.rbegin());
}

Variable variableOf(const std::string& name, const std::string& value) {
  Variable variable;
  variable.name.value = name;
  variable.value.value = value;
  return variable;
}

void setArguments(LaunchFile::Node& node,
                  const std::vector<std::string>& argv) {
  node.executable = argv.empty() ? "" : argv.front();
  node.arguments.clear();
  for (size_t i = 1; i < argv.size(); ++i) {
    node.arguments.push_back({argv[i], {}});
  }
}

void setVariables(LaunchFile::Node& node, const RunningNode& running,
                  const Values& inherited) {
  Values values = valuesIn(running.environment);
  std::vector<Variable> variables;
  for (const Variable& wanted : node.environment) {
    const std::string name = exportedName(wanted.name.value);
    const auto found = values.find(name);
    if (found == values.end()) continue;
    // The value of a variable ends with a NUL.
    const bool is_same = found->second == untilNul(wanted.value.value);
    variables.push_back(is_same ? wanted
                                : variableOf(wanted.name.value, found->second));
    values.erase(found);
  }
  for (const auto& [name, value] : values) {
    const auto own = inherited.find(name);
    const bool is_inherited = own != inherited.end() && own->second == value;
    if (!is_inherited && !isSetByPrograms(name)) {
      variables.push_back(variableOf(name, value));
    }
  }
  node.environment = std::move(variables);
}

LaunchFile::Node nodeOfProcess(LaunchFile::Node node,
                               const RunningNode& running,
                               const Values& inherited) {
  std::vector<std::string> argv = {node.executable};
  for (const Text& argument : node.arguments) argv.push_back(argument.value);
  const bool is_same =
      !running.argv.empty() &&
      (endsWithAll(running.argv, argv) || endsWithAll(argv, running.argv));
  if (!is_same) setArguments(node, running.argv);
  setVariables(node, running, inherited);
  return node;
}

bool hasToRun(const LaunchFile::Node& node) {
  return node.autostart.value && !node.oneshot.value && !node.disabled.value;
}

}  // namespace

std::vector<RunningNode> readRunningNodes(const ProcessTable& table,
                                          pid_t launcher, size_t& unreadable) {
  std::vector<RunningNode> nodes;
  for (const auto& [name, processes] :
       processesOfNodes(table, launcher, unreadable)) {
    const Process& process = *processes.front().process;
    if (!process.isAlive() || process.parent != launcher) continue;
    const auto environment = readProcFile(procFile(process.pid, "environ"));
    nodes.push_back({name, argumentsOf(process.pid),
                     splitAtNuls(environment.value_or(""))});
  }
  return nodes;
}

LaunchFile withAllVariables(LaunchFile file) {
  LaunchFile::Nodes nodes;
  for (LaunchFile::Node node : file.nodes) {
    node.environment.insert(node.environment.begin(), file.environment.begin(),
                            file.environment.end());
    // The last one of a name counts.
    std::set<std::string> names;
    std::vector<Variable> variables;
    std::for_each(node.environment.rbegin(), node.environment.rend(),
                  [&](const Variable& variable) {
                    const bool is_new =
                        names.insert(variable.name.value).second;
                    if (is_new) variables.push_back(variable);
                  });
    node.environment = std::move(variables);
    nodes.add(std::move(node));
  }
  file.nodes = std::move(nodes);
  file.environment.clear();
  return file;
}

LaunchFile asRunning(const LaunchFile& file,
                     const std::vector<RunningNode>& running,
                     const std::vector<std::string>& inherited) {
  const Values own = valuesIn(inherited);
  LaunchFile result;
  for (const LaunchFile::Node& node : file.nodes) {
    const auto found = std::find_if(
        running.begin(), running.end(), [&](const RunningNode& each) {
          return each.name == untilNul(node.name.value);
        });
    if (found != running.end()) {
      result.nodes.add(nodeOfProcess(node, *found, own));
    } else if (!hasToRun(node)) {
      result.nodes.add(node);
    }
  }
  for (const RunningNode& each : running) {
    if (file.find(each.name) != nullptr) continue;
    LaunchFile::Node node;
    node.name.value = each.name;
    setArguments(node, each.argv);
    result.nodes.add(std::move(node));
  }
  return result;
}

}  // namespace vorn::launch
