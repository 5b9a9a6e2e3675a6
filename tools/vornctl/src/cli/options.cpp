#include "cli/options.h"

namespace vorn::launch {
namespace {

constexpr char kNoList = '\x01';

}  // namespace

std::vector<std::string> protectedArguments(int argc, char** argv) {
  std::vector<std::string> arguments;
  for (int i = argc - 1; i > 0; --i) {
    std::string argument = argv[i];
    if (argument[0] == '[' || argument[0] == kNoList) {
      argument.insert(argument.begin(), kNoList);
    }
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

void unprotect(std::string& argument) {
  if (!argument.empty() && argument[0] == kNoList) argument.erase(0, 1);
}

}  // namespace vorn::launch
