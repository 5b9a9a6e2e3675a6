#pragma once

#include <string>
#include <vector>

namespace vorn::launch {

/// A fact for users, such as "Kernel" and "Linux 6.1.0-28-amd64 x86_64".
struct HostFact {
  std::string name;
  std::string value;  // "unknown" if it cannot be read
};

/// The name of this machine.
std::string hostName();

/// The facts about this machine that matter for its launcher: system, load,
/// memory, clock.
std::vector<HostFact> hostFacts();

/// The free space of the file system of an open file: "1.2G of 10.0G free".
std::string freeSpaceAt(int fd);

/// The type, mode and owner of the file at `path`: "srw------- root", or the
/// reason why they are not known.
std::string describeMode(const std::string& path);

/// The value of a variable in the text of os-release(5), without its quotes;
/// empty if it has none.
std::string osReleaseValue(const std::string& text, const std::string& name);

}  // namespace vorn::launch
