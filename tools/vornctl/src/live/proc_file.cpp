#include "live/proc_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

#include "descriptor.h"

namespace vorn::launch {

std::string procFile(pid_t pid, const std::string& file) {
  return "/proc/" + std::to_string(pid) + '/' + file;
}

std::optional<std::string> readProcFile(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.number() < 0) return std::nullopt;
  std::string text;
  for (;;) {
    char piece[4096];
    const ssize_t got = ::read(file.number(), piece, sizeof(piece));
    if (got == 0) return text;
    // ESRCH: the process has exited since the file was opened.
    if (got < 0) return std::nullopt;
    text.append(piece, static_cast<size_t>(got));
  }
}

std::vector<std::string> splitAtNuls(const std::string& text) {
  std::vector<std::string> strings;
  size_t begin = 0;
  for (size_t end = text.find('\0'); end != std::string::npos;
       end = text.find('\0', begin)) {
    strings.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return strings;
}

std::optional<std::string> readProcLink(const std::string& path) {
  std::error_code error;
  const std::filesystem::path target =
      std::filesystem::read_symlink(path, error);
  if (error) return std::nullopt;
  return target.string();
}

std::optional<char> processState(pid_t pid) {
  const auto text = readProcFile(procFile(pid, "stat"));
  if (!text) return std::nullopt;
  // The name, in parentheses, may contain anything; a space follows it.
  const size_t name_end = text->rfind(')');
  if (name_end == std::string::npos || name_end + 2 >= text->size()) {
    return std::nullopt;
  }
  return (*text)[name_end + 2];
}

}  // namespace vorn::launch
