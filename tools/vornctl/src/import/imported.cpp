#include "import/imported.h"

#include <unistd.h>

#include <filesystem>

#include "run_options.h"

namespace vorn::launch {
namespace {

/// The first executable file of this name; empty if there is none.
std::string programInPath(const std::string& name, const std::string& path) {
  for (const std::string& directory : split(path, ':')) {
    std::string file = directory;
    file.append("/").append(name);
    if (::access(file.c_str(), X_OK) == 0) return file;
  }
  return "";
}

}  // namespace

std::string logDirectoryFor(const std::string& file) {
  const std::filesystem::path path(file);
  if (!path.has_extension()) return file + ".d";
  return (path.parent_path() / path.stem()).string();
}

void rejectInvalidOptions(Imported& imported) {
  for (ImportedNode& node : imported.nodes) {
    Assignments accepted;
    for (const auto& [name, value] : node.options) {
      run::RunSettings settings;
      const run::RunOption* const option = run::findRunOption(name);
      const std::string reason =
          option == nullptr ? "unknown" : option->set(settings, value);
      if (reason.empty()) {
        accepted.emplace_back(name, value);
      } else {
        std::string given = "--";
        given.append(name).append(" ").append(value);
        node.omitted.push_back({given, "vornrun rejects it: " + reason});
      }
    }
    node.options = std::move(accepted);
  }
}

void findPrograms(Imported& imported, const std::string& path) {
  for (ImportedNode& node : imported.nodes) {
    if (node.program.find('/') != std::string::npos) continue;
    if (node.program.find('$') != std::string::npos) continue;
    const std::string found = programInPath(node.program, path);
    if (found.empty()) {
      node.omitted.push_back(
          {"", "'" + node.program +
                   "' is not in PATH here; write its absolute path"});
    } else {
      node.program = found;
    }
  }
}

}  // namespace vorn::launch
