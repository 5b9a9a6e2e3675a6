#include "live/tmp_cleaning.h"

#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <string_view>

#include "live/configuration_files.h"
#include "vorn/control_protocol.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

bool isMatch(const std::string& pattern, const std::string& path) {
  return ::fnmatch(pattern.c_str(), path.c_str(), FNM_PATHNAME) == 0;
}

/// Whether the rule excludes the control socket, or its directory.
bool excludes(const TmpfilesRule& rule) {
  return (rule.type[0] == 'x' || rule.type[0] == 'X') &&
         (isMatch(rule.path, kControlDirectory) ||
          isMatch(rule.path,
                  std::string(kControlDirectory) + '/' + kControlSocketName));
}

/// Whether the rule removes old files from the directory above it.
bool cleans(const TmpfilesRule& rule) {
  constexpr std::string_view kCleaningTypes = "dDevqQC";
  return !rule.age.empty() &&
         kCleaningTypes.find(rule.type[0]) != std::string_view::npos &&
         isMatch(rule.path, fs::path(kControlDirectory).parent_path());
}

}  // namespace

std::vector<TmpfilesRule> parseTmpfiles(const std::string& text) {
  std::vector<TmpfilesRule> rules;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    const std::vector<std::string> fields(
        std::istream_iterator<std::string>(words), {});
    if (fields.size() < 2 || fields[0][0] == '#') continue;
    constexpr size_t kAge = 5;  // after type, path, mode, user and group
    TmpfilesRule rule{fields[0], fields[1], ""};
    if (fields.size() > kAge && fields[kAge] != "-") rule.age = fields[kAge];
    rules.push_back(std::move(rule));
  }
  return rules;
}

std::optional<std::vector<TmpfilesRule>> readTmpfiles() {
  if (::access("/run/systemd/system", F_OK) != 0) return std::nullopt;
  std::vector<TmpfilesRule> rules;
  for (const std::string& path :
       configurationFiles({"/etc/tmpfiles.d", "/run/tmpfiles.d",
                           "/usr/local/lib/tmpfiles.d", "/usr/lib/tmpfiles.d"},
                          ".conf")) {
    const auto more = parseTmpfiles(readConfiguration(path));
    rules.insert(rules.end(), more.begin(), more.end());
  }
  return rules;
}

Finding tmpCleaningFinding(
    const std::optional<std::vector<TmpfilesRule>>& rules) {
  if (!rules) return okFinding("systemd does not clean /tmp here");
  if (std::any_of(rules->begin(), rules->end(), excludes)) {
    return okFinding(std::string("systemd does not clean ") +
                     kControlDirectory);
  }
  const auto cleaning = std::find_if(rules->begin(), rules->end(), cleans);
  if (cleaning == rules->end()) {
    return okFinding("systemd does not clean /tmp by age");
  }
  return {Verdict::WARNING,
          "systemd removes files from " + cleaning->path +
              " that were not used for " + cleaning->age +
              ", and the control socket is not excluded",
          "install the rule 'x /tmp/vornlaunch' of the package in "
          "/etc/tmpfiles.d/vornlaunch.conf"};
}

}  // namespace vorn::launch
