#include "live/libsystemd.h"

#include <dlfcn.h>

namespace vorn::launch {
namespace {

Libsystemd loaded;

template <typename Function>
bool find(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(::dlsym(library, name));
  return function != nullptr;
}

bool findFunctions(void* library, Libsystemd& found) {
  return find(library, "sd_journal_open", found.open) &&
         find(library, "sd_journal_open_directory", found.open_directory) &&
         find(library, "sd_journal_close", found.close) &&
         find(library, "sd_journal_next", found.next) &&
         find(library, "sd_journal_previous", found.previous) &&
         find(library, "sd_journal_previous_skip", found.previous_skip) &&
         find(library, "sd_journal_get_realtime_usec",
              found.get_realtime_usec) &&
         find(library, "sd_journal_set_data_threshold",
              found.set_data_threshold) &&
         find(library, "sd_journal_get_data", found.get_data) &&
         find(library, "sd_journal_add_match", found.add_match) &&
         find(library, "sd_journal_flush_matches", found.flush_matches) &&
         find(library, "sd_journal_seek_head", found.seek_head) &&
         find(library, "sd_journal_seek_tail", found.seek_tail) &&
         find(library, "sd_journal_seek_realtime_usec",
              found.seek_realtime_usec) &&
         find(library, "sd_journal_seek_cursor", found.seek_cursor) &&
         find(library, "sd_journal_get_cursor", found.get_cursor) &&
         find(library, "sd_journal_test_cursor", found.test_cursor) &&
         find(library, "sd_journal_get_fd", found.get_fd) &&
         find(library, "sd_journal_process", found.process);
}

}  // namespace

bool loadLibsystemd(std::string& error) {
  static const bool kIsLoaded = [] {
    void* const library = ::dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
    return library != nullptr && findFunctions(library, loaded);
  }();
  if (!kIsLoaded) {
    error =
        "cannot load libsystemd.so.0, which reads the journal; install it "
        "(Debian: libsystemd0), or use: journalctl -o cat -u UNIT | "
        "vornctl COMMAND --log -";
  }
  return kIsLoaded;
}

const Libsystemd& libsystemd() { return loaded; }

}  // namespace vorn::launch
