#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <string>
#include <vector>

#include "account.h"
#include "check/rules.h"
#include "check/vornrun_command.h"
#include "environment_file.h"
#include "file_text.h"
#include "output/edit_distance.h"
#include "output/text.h"
#include "run_options.h"

namespace vorn::launch {
namespace {

constexpr char kFails[] = "; vornrun exits with status 125 at each start";

/// "vornrun of node 'x'".
std::string vornrunOf(const LaunchFile::Node& node) {
  return "vornrun of node '" + node.name.value + "'";
}

/// The suggestion for an unknown option; empty if no option is near.
std::string suggestionFor(const std::string& option) {
  std::vector<std::string> names = {"config"};
  for (const run::RunOption& each : run::runOptions()) {
    names.emplace_back(each.name);
  }
  const std::string name =
      option.substr(std::min(option.find_first_not_of('-'), option.size()));
  if (std::count(names.begin(), names.end(), name) > 0) return "";
  const std::string nearest = nearestOf(names, name);
  return nearest.empty() ? "" : "; did you mean '--" + nearest + "'?";
}

void reportError(const LaunchFile::Node& node, const run::RunError& error,
                 Diagnostics& diagnostics) {
  const std::string suggestion =
      startsWith(error.option, "-") ? suggestionFor(error.option) : "";
  // A suggestion makes the general advice of vornrun unnecessary.
  const std::string reason =
      suggestion.empty() ? error.reason : "unknown option" + suggestion;
  diagnostics.add("vornrun-option", argumentWith(node, error.option),
                  (error.option.empty() ? "" : "'" + error.option + "' of ") +
                      vornrunOf(node) + ": " + reason);
}

/// The errors of a configuration file, or of reading it.
void checkConfig(const LaunchFile::Node& node, const run::RunArguments& parsed,
                 Diagnostics& diagnostics) {
  for (const run::RunError& error : parsed.errors) {
    if (error.option == "--config") {
      diagnostics.add("vornrun-file", argumentWith(node, parsed.configFile),
                      vornrunOf(node) + ": " + error.reason + kFails);
    } else if (startsWith(error.option, parsed.configFile)) {
      diagnostics.add(
          "vornrun-option", argumentWith(node, parsed.configFile),
          error.option + " of " + vornrunOf(node) + ": " + error.reason);
    }
  }
}

void checkEnvironmentFiles(const LaunchFile::Node& node,
                           const run::RunSettings& settings,
                           Diagnostics& diagnostics) {
  for (const std::string& name : settings.environmentFiles) {
    const bool may_be_missing = startsWith(name, "-");
    const std::string path = name.substr(may_be_missing ? 1 : 0);
    const run::FileText file = run::readFileText(path);
    if (file.isMissing && may_be_missing) continue;
    const std::string reason = file.error.empty()
                                   ? run::parseEnvironmentFile(file.text).error
                                   : "cannot read it: " + file.error;
    if (reason.empty()) continue;
    std::string message = "the variables in '" + path + "' for ";
    message.append(vornrunOf(node)).append(": ").append(reason) += kFails;
    diagnostics.add("vornrun-file", argumentWith(node, path), message);
  }
}

void checkUser(const LaunchFile::Node& node, const run::RunSettings& settings,
               Diagnostics& diagnostics) {
  if (settings.user.empty()) return;
  std::string reason;
  const auto account = run::findAccount(
      settings.user, settings.group, run::readFileText("/etc/passwd").text,
      run::readFileText("/etc/group").text, reason);
  if (account) return;
  diagnostics.add("vornrun-user", argumentWith(node, "--user"),
                  vornrunOf(node) + ": " + reason + kFails);
}

/// A description of a program whose start clears the parent death signal; empty
/// for others.
std::string privilegesOf(const std::string& program) {
  struct stat status {};
  if (::stat(program.c_str(), &status) != 0) return "";
  if ((status.st_mode & (S_ISUID | S_ISGID)) != 0) return "a setuid program";
  const bool has_capabilities =
      ::getxattr(program.c_str(), "security.capability", nullptr, 0) > 0;
  return has_capabilities ? "a program with file capabilities" : "";
}

void checkPrivileges(const LaunchFile::Node& node,
                     const run::RunSettings& settings,
                     Diagnostics& diagnostics) {
  if (settings.parentDeathSignal == 0 || settings.program.empty()) return;
  const std::string& program = settings.program[0];
  const std::string kind = privilegesOf(program);
  if (kind.empty()) return;
  diagnostics.add("vornrun-privileges", argumentWith(node, "--pdeathsig"),
                  "'" + program + "' of node '" + node.name.value + "' is " +
                      kind +
                      ", so the kernel cancels --pdeathsig when it starts");
}

}  // namespace

void checkVornrun(const LaunchFile& file, Diagnostics& diagnostics) {
  for (const LaunchFile::Node& node : file.nodes) {
    if (!runsVornrun(node)) continue;
    for (const run::RunError& error : parseVornrun(node, false).parsed.errors) {
      reportError(node, error, diagnostics);
    }
  }
}

void checkVornrunHost(const LaunchFile& file, Diagnostics& diagnostics) {
  for (const LaunchFile::Node& node : file.nodes) {
    if (!runsVornrun(node)) continue;
    const run::RunArguments parsed = parseVornrun(node, true).parsed;
    checkConfig(node, parsed, diagnostics);
    if (!parsed.errors.empty()) continue;
    checkEnvironmentFiles(node, parsed.settings, diagnostics);
    checkUser(node, parsed.settings, diagnostics);
    checkPrivileges(node, parsed.settings, diagnostics);
  }
}

}  // namespace vorn::launch
