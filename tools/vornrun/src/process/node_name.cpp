#include "process/node_name.h"

#include <cstdlib>
#include <cstring>

#include "vorn/launch_rules.h"

namespace vorn::run {

std::string nodeName(const RunSettings& settings) {
  if (const char* const value = std::getenv(launch::kNodeNameVariable)) {
    std::string name = value;
    const size_t suffix = std::strlen(launch::kNodeNameSuffix);
    if (name.size() > suffix && name.compare(name.size() - suffix, suffix,
                                             launch::kNodeNameSuffix) == 0) {
      name.resize(name.size() - suffix);
    }
    if (!name.empty()) return name;
  }
  if (settings.program.empty()) return "?";
  const std::string& path = settings.program.front();
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace vorn::run
