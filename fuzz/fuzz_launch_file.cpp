// A launch file of any content through Parser::Parse() into nodes and global
// settings. The correct result is an exception of yaml-cpp, or the contents of
// the file in a form that a start can use.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "config.h"
#include "node_manager.h"
#include "parser.h"
#include "support/check.h"
#include "support/log.h"
#include "support/registry.h"
#include "vornlib/install_root.h"
#include "vornlib/path.h"

namespace {

/// The environment that the launcher's code sees. Not the real one: glibc never
/// frees a value that it once held, and that of the fuzzer must not change.
std::map<std::string, std::string>& variables() {
  static std::map<std::string, std::string> variables;
  return variables;
}

bool isRefusedName(const std::string& name) {
  return name.empty() || name.find('=') != std::string::npos;
}

}  // namespace

// The linker redirects the calls here, and defines the names.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)
extern "C" {

char* __wrap_getenv(const char* name) {
  const auto variable = variables().find(name);
  return variable == variables().end() ? nullptr : variable->second.data();
}

int __wrap_setenv(const char* name, const char* value, int /*overwrite*/) {
  if (isRefusedName(name)) return -1;
  variables()[name] = value;
  return 0;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)

namespace vorn::fuzz {
namespace {

using launch::Environment;
using launch::Node;
using launch::NodeState;

constexpr char kRoot[] = "/opt/root";

/// A file in memory, always under the same path.
class MemoryFile {
 public:
  MemoryFile()
      : fd_(::memfd_create("launch.yaml", MFD_CLOEXEC)),
        path_("/proc/self/fd/" + std::to_string(fd_)) {
    check(fd_ != -1, "a file in memory can be made");
  }

  void write(const uint8_t* data, size_t size) const {
    check(::ftruncate(fd_, 0) == 0 &&
              ::pwrite(fd_, data, size, 0) == static_cast<ssize_t>(size),
          "the file can be written");
  }

  const std::string& path() const { return path_; }

 private:
  int fd_;
  std::string path_;
};

void checkExpanded(const Environment& environment) {
  for (const auto& [name, value] : environment) {
    check(value.find(path::kInstallPrefix) == std::string::npos,
          "no install:// is left in a value");
  }
}

/// The part of `text` that the C library sees.
std::string untilNul(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

void checkGlobal(const Environment& environment) {
  checkExpanded(environment);
  std::map<std::string, std::string> last;
  for (const auto& [name, value] : environment) {
    if (isRefusedName(untilNul(name))) continue;
    last[untilNul(name)] = untilNul(value);
  }
  last.try_emplace("VORN_ROOT", kRoot);
  check(variables() == last, "the launcher's environment has the last values");
}

void checkPath(const std::string& path) {
  const auto directory = variables().find("VORN_BIN_PATH");
  if (directory == variables().end() || directory->second.empty()) return;
  const std::string below = directory->second + '/';
  check(path.compare(0, below.size(), below) == 0 ||
            (!path.empty() && path.front() == '/'),
        "a relative path is below VORN_BIN_PATH");
}

void checkNode(const Node& node) {
  check(!node.argv.empty(), "a node has an executable");
  checkPath(node.argv.front());
  for (size_t i = 1; i < node.argv.size(); ++i) {
    check(!node.argv[i].empty() && node.argv[i].find_first_of(std::string(
                                       " \0", 2)) == std::string::npos,
          "an argument is neither empty nor does it contain a space");
  }
  check(!node.environment.empty() &&
            node.environment.front().first == "__VORN_NODE_NAME__" &&
            node.environment.front().second == node.name + "(vornlaunch)",
        "the first variable is the node's name");
  // The built-in entry contains the unchanged name.
  checkExpanded({node.environment.begin() + 1, node.environment.end()});
  check(node.pid == 0 && node.state == NodeState::STOPPED && !node.stopped,
        "a node that was read is stopped");
}

}  // namespace
}  // namespace vorn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vorn;
  static const fuzz::MemoryFile kFile;
  const fuzz::LogSink log;
  variables() = {{"VORN_ROOT", fuzz::kRoot}};
  (void)path::root();  // settled before a file can change the variable
  fuzz::forgetEverything();
  kFile.write(data, size);
  try {
    fuzz::check(launch::Parser().Parse(kFile.path()), "the file was opened");
  } catch (const YAML::Exception&) {
    // An invalid file; the part before the error is arbitrary.
  }
  fuzz::checkGlobal(launch::Config::getInstance().environment);
  const auto& nodes = launch::NodeManager::getInstance().nodes();
  for (const auto& node : nodes) fuzz::checkNode(*node);
  fuzz::forgetEverything();
  return 0;
}
