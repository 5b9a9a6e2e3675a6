// Needs the C library, the C++ library and yaml-cpp, as the launcher does.

#include <yaml-cpp/yaml.h>

int main(int argc, char** argv) {
  try {
    return argc > 1 && YAML::LoadFile(argv[1]).IsMap() ? 0 : 1;
  } catch (...) {
    return 1;
  }
}
