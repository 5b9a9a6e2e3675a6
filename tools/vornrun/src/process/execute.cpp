#include "process/execute.h"

#include <unistd.h>

#include <cerrno>

namespace vorn::run {

int executeProgram(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  (void)::execvp(pointers[0], pointers.data());
  return errno;
}

}  // namespace vorn::run
