#include "config.h"

#include <mutex>
#include <new>

#include "vornlib/time.h"

namespace vorn::launch {

Config& Config::getInstance() {
  static Config* instance = nullptr;
  static std::once_flag once;
  if (instance == nullptr) {
    std::call_once(once, [] { instance = new (std::nothrow) Config(); });
  }
  return *instance;
}

}  // namespace vorn::launch
