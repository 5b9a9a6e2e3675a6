#pragma once

#include <optional>
#include <string>
#include <vector>

#include "live/health.h"

namespace vorn::launch {

/// A line of tmpfiles.d(5).
struct TmpfilesRule {
  std::string type;  // such as "q" or "x"
  std::string path;  // or a pattern
  std::string age;   // empty: nothing is removed by its age
};

/// The rules in the text of a file; lines of another form are skipped.
std::vector<TmpfilesRule> parseTmpfiles(const std::string& text);

/// The rules that systemd-tmpfiles applies on this machine. Nothing if systemd
/// does not run.
std::optional<std::vector<TmpfilesRule>> readTmpfiles();

/// Whether the directory of the control socket is cleaned by its age. `rules`
/// is the result of readTmpfiles().
Finding tmpCleaningFinding(
    const std::optional<std::vector<TmpfilesRule>>& rules);

}  // namespace vorn::launch
