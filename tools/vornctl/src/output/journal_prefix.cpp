#include "output/journal_prefix.h"

#include <sys/stat.h>

#include <cstdlib>
#include <string>

namespace vorn::launch {

OutputText journalPrefix(int fd, JournalLevel level) {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  if (stream == nullptr || ::fstat(fd, &status) != 0 ||
      std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) !=
          stream) {
    return {};
  }
  return OutputText("<") + static_cast<int>(level) + ">";
}

}  // namespace vorn::launch
