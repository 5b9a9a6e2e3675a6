#include "live/host_facts.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/timex.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <sstream>

#include "live/node_status.h"
#include "live/proc_file.h"
#include "output/quantity.h"

namespace vorn::launch {
namespace {

constexpr char kUnknownFact[] = "unknown";

std::string kernelFact() {
  utsname system{};
  if (::uname(&system) != 0) return kUnknownFact;
  return std::string(system.sysname) + ' ' + system.release + ' ' +
         system.machine + ", " + system.version;
}

std::string systemFact() {
  for (const char* const path : {"/etc/os-release", "/usr/lib/os-release"}) {
    const auto text = readProcFile(path);
    if (!text) continue;
    std::string name = osReleaseValue(*text, "PRETTY_NAME");
    if (!name.empty()) return name;
  }
  return kUnknownFact;
}

std::string uptimeFact() {
  timespec time{};
  if (::clock_gettime(CLOCK_BOOTTIME, &time) != 0) return kUnknownFact;
  return formatSpan(time.tv_sec);
}

std::string loadFact() {
  std::istringstream words(readProcFile("/proc/loadavg").value_or(""));
  std::string one;
  std::string five;
  std::string fifteen;
  if (!(words >> one >> five >> fifteen)) return kUnknownFact;
  return one + ", " + five + ", " + fifteen + " (1, 5 and 15 minutes) on " +
         std::to_string(::sysconf(_SC_NPROCESSORS_ONLN)) + " processors";
}

/// A value of /proc/meminfo, for users.
std::string memoryValue(const std::string& text, const std::string& name) {
  const size_t begin = text.find(name + ':');
  if (begin == std::string::npos) return kUnknownFact;
  std::istringstream words(text.substr(begin + name.size() + 1));
  int64_t kib = 0;
  words >> kib;
  return formatBytes(kib * 1024);
}

std::string memoryFact() {
  const auto text = readProcFile("/proc/meminfo");
  if (!text) return kUnknownFact;
  return memoryValue(*text, "MemAvailable") + " of " +
         memoryValue(*text, "MemTotal") +
         " available, swap: " + memoryValue(*text, "SwapFree") + " of " +
         memoryValue(*text, "SwapTotal") + " free";
}

std::string clockFact() {
  const std::time_t now = std::time(nullptr);
  std::tm parts{};
  char text[80];
  if (::localtime_r(&now, &parts) == nullptr) return kUnknownFact;
  const size_t length = std::strftime(
      text, sizeof(text), "local time %Y-%m-%d %H:%M:%S %z", &parts);
  timex state{};  // modes 0: only read
  const int result = ::adjtimex(&state);
  const char* const is_synchronized =
      result < 0 ? "unknown whether it is synchronized"
      : (static_cast<unsigned>(state.status) & STA_UNSYNC) != 0
          ? "not synchronized"
          : "synchronized";
  return std::string(text, length) + ", " + is_synchronized;
}

char letterForType(mode_t mode) {
  if (S_ISSOCK(mode)) return 's';
  if (S_ISDIR(mode)) return 'd';
  if (S_ISLNK(mode)) return 'l';
  return S_ISREG(mode) ? '-' : '?';
}

}  // namespace

std::string hostName() {
  utsname system{};
  return ::uname(&system) == 0 ? system.nodename : kUnknownFact;
}

std::vector<HostFact> hostFacts() {
  return {{"Kernel", kernelFact()}, {"Operating system", systemFact()},
          {"Uptime", uptimeFact()}, {"Load", loadFact()},
          {"Memory", memoryFact()}, {"Clock", clockFact()}};
}

std::string freeSpaceAt(int fd) {
  struct statvfs status {};
  if (::fstatvfs(fd, &status) != 0) {
    return std::string(kUnknownFact) + ": " + std::strerror(errno);
  }
  const auto sizeOf = [&](fsblkcnt_t blocks) {
    return formatBytes(static_cast<int64_t>(blocks * status.f_frsize));
  };
  return sizeOf(status.f_bavail) + " of " + sizeOf(status.f_blocks) + " free";
}

std::string describeMode(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return std::strerror(errno);
  std::string text(1, letterForType(status.st_mode));
  for (int bit = 8; bit >= 0; --bit) {
    const bool is_set =
        (status.st_mode >> static_cast<unsigned>(bit) & 1U) != 0;
    text += is_set ? "xwr"[bit % 3] : '-';
  }
  const passwd* const user = ::getpwuid(status.st_uid);
  return text + ' ' +
         (user == nullptr ? std::to_string(status.st_uid) : user->pw_name);
}

std::string osReleaseValue(const std::string& text, const std::string& name) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(name + '=', 0) != 0) continue;
    std::string value = line.substr(name.size() + 1);
    const bool is_quoted = value.size() >= 2 && value.front() == value.back() &&
                           (value.front() == '"' || value.front() == '\'');
    return is_quoted ? value.substr(1, value.size() - 2) : value;
  }
  return "";
}

}  // namespace vorn::launch
