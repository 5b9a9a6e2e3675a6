#include "process/execute.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "report.h"

namespace vorn::run {
namespace {

constexpr char kDefaultPath[] = "/usr/bin:/bin";

bool isExecutableFile(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         ::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) == 0;
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts) {
    pointers.push_back(const_cast<char*>(text.c_str()));
  }
  pointers.push_back(nullptr);
  return pointers;
}

}  // namespace

std::optional<std::string> findProgram(const std::string& name,
                                       const Environment& environment) {
  if (name.find('/') != std::string::npos) return name;
  const std::string path = environment.find("PATH").value_or(kDefaultPath);
  size_t begin = 0;
  for (;;) {
    const size_t end = path.find(':', begin);
    std::string directory = path.substr(begin, end - begin);
    if (directory.empty()) directory = ".";
    const std::string candidate = directory.append("/").append(name);
    if (!name.empty() && isExecutableFile(candidate)) return candidate;
    if (end == std::string::npos) return std::nullopt;
    begin = end + 1;
  }
}

std::string privilegeOf(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return "";
  if ((status.st_mode & S_ISUID) != 0) return "a setuid program";
  // Without permission to execute for the group, the bit is for locks.
  if ((status.st_mode & S_ISGID) != 0 && (status.st_mode & S_IXGRP) != 0) {
    return "a setgid program";
  }
  const bool has_capabilities =
      ::getxattr(path.c_str(), "security.capability", nullptr, 0) > 0;
  return has_capabilities ? "a program with file capabilities" : "";
}

int executeProgram(const std::vector<std::string>& arguments,
                   const Environment& environment, std::string& reason) {
  const auto path = findProgram(arguments[0], environment);
  if (!path) {
    reason = "no such program in PATH";
    return kExitNotFound;
  }
  (void)::execve(path->c_str(), pointersTo(arguments).data(),
                 pointersTo(environment.entries()).data());
  const int error = errno;
  reason = std::string("cannot execute it: ") + std::strerror(error);
  if (error != ENOENT) return kExitNotExecutable;
  if (::access(path->c_str(), F_OK) == 0) reason = "its interpreter is missing";
  return kExitNotFound;
}

}  // namespace vorn::run
