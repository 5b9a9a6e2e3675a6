#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "check/rules.h"
#include "output/text.h"
#include "vorn/launch_rules.h"
#include "vornlib/install_root.h"

namespace vorn::launch {
namespace {

std::string quoted(const std::string& text) { return "'" + text + "'"; }

bool isIn(const std::string& text, size_t position, const char* letters) {
  return position < text.size() &&
         std::string(letters).find(text[position]) != std::string::npos;
}

/// The first part of a value that a shell would replace: "$NAME", "${NAME}" or
/// "~". Names in lower case are ignored: they are frequent in formats and
/// patterns that the program itself replaces.
std::string shellPartOfValue(const std::string& value) {
  constexpr char kName[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ_0123456789";
  for (size_t i = value.find_first_of("$~"); i != std::string::npos;
       i = value.find_first_of("$~", i + 1)) {
    if (value[i] == '~') {
      const bool begins = i == 0 || value[i - 1] == ':';
      const bool ends = i + 1 == value.size() || isIn(value, i + 1, "/:");
      if (begins && ends) return "~";
      continue;
    }
    if (i > 0 && isIn(value, i - 1, "$\\")) continue;
    const bool is_braced = isIn(value, i + 1, "{");
    const size_t name = i + (is_braced ? 2 : 1);
    const size_t end =
        std::min(value.find_first_not_of(kName, name), value.size());
    if (end < name + 2 || isIn(value, name, "0123456789")) continue;
    if (!is_braced) return value.substr(i, end - i);
    if (isIn(value, end, "}")) return value.substr(i, end + 1 - i);
  }
  return "";
}

void checkVariable(const Variable& variable, Diagnostics& diagnostics) {
  const std::string& name = variable.name.value;
  if (exportedName(name).empty()) {
    diagnostics.add("refused-variable", variable.name.location,
                    "variable " + quoted(name) +
                        " is not set: its name is empty or contains '='");
  }
  if (name.find('\0') != std::string::npos ||
      variable.written.find('\0') != std::string::npos) {
    diagnostics.add("nul-in-text", variable.value.location,
                    "variable " + quoted(name) + " ends at its first NUL");
  }
  if (const std::string part = shellPartOfValue(variable.written);
      !part.empty()) {
    diagnostics.add("variable-not-expanded", variable.value.location,
                    "variable " + quoted(name) + " keeps its " + quoted(part) +
                        " as written; no shell expands it");
  }
}

void checkRepeated(const std::vector<Variable>& variables,
                   Diagnostics& diagnostics) {
  std::map<std::string, SourceLocation> before;
  for (const Variable& variable : variables) {
    const std::string& name = variable.name.value;
    const SourceLocation location = variable.name.location;
    const auto [first, is_new] = before.emplace(name, location);
    if (is_new) continue;
    diagnostics.add("repeated-key", location,
                    "repeated variable " + quoted(name) +
                        ": this value replaces the previous one",
                    {{first->second, "the value here is overwritten"}});
    first->second = location;
  }
}

/// A misspelt "install://": with other letters, or with another number of
/// slashes or colons. Empty if there is none.
std::string misspeltInstall(const std::string& value) {
  const std::string lower = lowerCase(value);
  for (const char* const word :
       {"install:", "install//", "instal:", "intall:", "insatll:"}) {
    for (size_t found = lower.find(word); found != std::string::npos;
         found = lower.find(word, found + 1)) {
      const size_t end =
          std::min(value.size(), found + path::kInstallPrefix.size() + 1);
      const bool begins = found == 0 || value[found - 1] == ':';
      const bool is_right = value.compare(found, path::kInstallPrefix.size(),
                                          path::kInstallPrefix) == 0;
      if (begins && !is_right) return value.substr(found, end - found);
    }
  }
  return "";
}

void checkInstall(const Variable& variable, Diagnostics& diagnostics) {
  const std::string part = misspeltInstall(variable.written);
  if (part.empty()) return;
  diagnostics.add("install-misspelt", variable.value.location,
                  quoted(part) + " in variable " + quoted(variable.name.value) +
                      " is not expanded; write 'install://'");
}

void checkNotExpanded(const Text& text, const std::string& what,
                      Diagnostics& diagnostics) {
  if (text.value.find(path::kInstallPrefix) == std::string::npos &&
      misspeltInstall(text.value).empty()) {
    return;
  }
  diagnostics.add("install-not-expanded", text.location,
                  "'install://' is not expanded in " + what +
                      ", only in the value of a variable");
}

void checkNode(const LaunchFile::Node& node, Diagnostics& diagnostics) {
  const std::string of_node = " of node " + quoted(node.name.value);
  checkRepeated(node.environment, diagnostics);
  for (const Variable& variable : node.environment) {
    checkVariable(variable, diagnostics);
    checkInstall(variable, diagnostics);
    checkNotExpanded(variable.name, "the name of a variable", diagnostics);
    if (variable.name.value == kNodeNameVariable) {
      diagnostics.add("node-name-replaced", variable.name.location,
                      std::string("'") + kNodeNameVariable + "'" + of_node +
                          " replaces the name that identifies its process");
    }
  }
  if (node.path.value.rfind('/', 0) == 0) {
    checkNotExpanded(node.path, "the path" + of_node, diagnostics);
  } else if (node.path.value.find("install:") != std::string::npos) {
    diagnostics.add("install-not-expanded", node.path.location,
                    "'install://' is not expanded in the path" + of_node +
                        "; set VORN_BIN_PATH, for example to 'install://bin', "
                        "and write the rest of the path here");
  }
  for (const Text& argv : node.argvs) {
    checkNotExpanded(argv, "the arguments" + of_node, diagnostics);
  }
}

/// Whether a PATH has a directory in which `ps` and `grep` can be expected.
bool hasTools(const std::string& path) {
  for (const char* const directory : {"/bin", "/usr/bin"}) {
    const std::string found = ":" + path + ":";
    for (const char* const end : {":", "/:"}) {
      if (found.find(std::string(":") + directory + end) != std::string::npos) {
        return true;
      }
    }
  }
  return false;
}

void checkLaunchersOwn(const Variable& variable, Diagnostics& diagnostics) {
  const std::string& name = variable.name.value;
  if (name == kNodeNameVariable) {
    diagnostics.add("node-name-replaced", variable.name.location,
                    std::string("a global '") + kNodeNameVariable +
                        "' is replaced in every node by the launcher's value");
  }
  if (name == "PATH" && !hasTools(variable.value.value)) {
    diagnostics.add("launcher-path", variable.value.location,
                    "the launcher itself uses this PATH to find 'ps' and "
                    "'grep'; add /usr/bin, or set PATH in the nodes");
  }
  if (name == "LD_PRELOAD" || name == "LD_LIBRARY_PATH") {
    diagnostics.add(
        "launcher-library", variable.name.location,
        "a global " + name +
            " acts on the 'ps' and 'grep' that the launcher runs for "
            "each stop, too; set it in the nodes that need it");
  }
}

}  // namespace

void checkEnvironment(const LaunchFile& file, Diagnostics& diagnostics) {
  checkRepeated(file.environment, diagnostics);
  for (const Variable& variable : file.environment) {
    checkVariable(variable, diagnostics);
    checkInstall(variable, diagnostics);
    checkNotExpanded(variable.name, "the name of a variable", diagnostics);
    checkLaunchersOwn(variable, diagnostics);
  }
  for (const LaunchFile::Node& node : file.nodes) checkNode(node, diagnostics);
}

}  // namespace vorn::launch
