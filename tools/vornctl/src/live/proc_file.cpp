#include "live/proc_file.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace vorn::launch {

std::string procFile(pid_t pid, const std::string& file) {
  return "/proc/" + std::to_string(pid) + '/' + file;
}

std::optional<std::string> readProcFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  try {
    return std::string((std::istreambuf_iterator<char>(file)), {});
  } catch (const std::ios_base::failure&) {
    return std::nullopt;  // the process has ended since the file was opened
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
