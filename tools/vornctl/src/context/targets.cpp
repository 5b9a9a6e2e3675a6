#include "context/targets.h"

#include <algorithm>

#include "context/node_patterns.h"

namespace vorn::launch {

Subjects findSubjects(Session& session,
                      const std::vector<std::string>& arguments) {
  Subjects subjects;
  subjects.status = session.findLauncher();
  if (subjects.status != kDone) return subjects;
  std::string error;
  const RunningLauncher* const known = session.launcher(error);
  const bool needs_file =
      arguments.empty() ||
      std::any_of(arguments.begin(), arguments.end(), isPattern);
  if (known == nullptr && needs_file) {
    session.complain(error);
    subjects.status = kUsage;
    return subjects;
  }
  subjects.isFileKnown = known != nullptr;
  subjects.launcher = known == nullptr ? session.launcherWithoutFile() : *known;
  subjects.names = selectNodes(subjects.launcher.file, arguments, error);
  if (subjects.names.empty() && !arguments.empty()) {
    session.complain(error);
    subjects.status = kNoSuchNode;
  }
  return subjects;
}

}  // namespace vorn::launch
