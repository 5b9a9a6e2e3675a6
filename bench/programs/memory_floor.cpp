// A C++ program that does nothing: the lower bound of memory.

#include <unistd.h>

#include <string>

int main(int argc, char** argv) {
  const std::string name(argv[argc - 1]);
  for (;;) {
    if (::pause() != -1 || name.empty()) return 1;
  }
}
