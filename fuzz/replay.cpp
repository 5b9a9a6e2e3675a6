// Runs a fuzz target on files, one after the other, without
// libFuzzer: each file and every file in each directory named on the command
// line. A target aborts the process on an incorrect result.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace fs = std::filesystem;

// In a unity build the definition precedes this.
// NOLINTNEXTLINE(readability-redundant-declaration)
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

std::vector<fs::path> inputs(const std::vector<fs::path>& arguments) {
  std::vector<fs::path> files;
  for (const fs::path& argument : arguments) {
    if (!fs::is_directory(argument)) {
      files.push_back(argument);
      continue;
    }
    for (const auto& entry : fs::directory_iterator(argument)) {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string read(const fs::path& path) {
  std::ifstream file;
  file.exceptions(std::ios::failbit);
  file.open(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main(int argc, char* argv[]) try {
  const std::vector<fs::path> files = inputs({argv + 1, argv + argc});
  for (const fs::path& path : files) {
    const std::string input = read(path);
    // Visible only if the target aborts the process.
    (void)std::fprintf(stderr, "%s\n", path.c_str());
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(input.data()),
                                 input.size());
  }
  (void)std::fprintf(stderr, "%zu inputs\n", files.size());
  return files.empty() ? 1 : 0;  // a missing directory proves nothing
} catch (const std::exception& error) {
  (void)std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
