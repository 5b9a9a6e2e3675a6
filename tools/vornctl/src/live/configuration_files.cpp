#include "live/configuration_files.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>

namespace vorn::launch {

namespace fs = std::filesystem;

std::vector<std::string> configurationFiles(
    const std::vector<std::string>& directories, const std::string& ending) {
  std::map<std::string, std::string> paths;  // by name
  for (const std::string& directory : directories) {
    std::error_code error;
    fs::directory_iterator files(directory, error);
    for (; !error && files != fs::directory_iterator();
         files.increment(error)) {
      const fs::path& path = files->path();
      if (path.extension() == ending) {
        paths.try_emplace(path.filename().string(), path.string());
      }
    }
  }
  std::vector<std::string> sorted;
  sorted.reserve(paths.size());
  for (const auto& [name, path] : paths) sorted.push_back(path);
  return sorted;
}

std::string readConfiguration(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace vorn::launch
