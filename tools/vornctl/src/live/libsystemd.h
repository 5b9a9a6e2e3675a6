#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// The functions of libsystemd that read the journal, with the declarations of
// sd-journal(3). vornctl loads the library when a command reads a journal: most
// commands read none, and the library would double the time of each start.

struct sd_journal;

namespace vorn::launch {

/// sd_journal_NAME() of libsystemd for each NAME.
struct Libsystemd {
  static constexpr int kLocalOnly = 1;  // SD_JOURNAL_LOCAL_ONLY, for open()

  int (*open)(sd_journal** journal, int flags);
  int (*open_directory)(sd_journal** journal, const char* path, int flags);
  void (*close)(sd_journal* journal);
  int (*next)(sd_journal* journal);
  int (*previous)(sd_journal* journal);
  int (*previous_skip)(sd_journal* journal, uint64_t skip);
  int (*get_realtime_usec)(sd_journal* journal, uint64_t* time);
  int (*set_data_threshold)(sd_journal* journal, size_t size);
  int (*get_data)(sd_journal* journal, const char* field, const void** data,
                  size_t* size);
  int (*add_match)(sd_journal* journal, const void* data, size_t size);
  void (*flush_matches)(sd_journal* journal);
  int (*seek_head)(sd_journal* journal);
  int (*seek_tail)(sd_journal* journal);
  int (*seek_realtime_usec)(sd_journal* journal, uint64_t time);
  int (*seek_cursor)(sd_journal* journal, const char* cursor);
  int (*get_cursor)(sd_journal* journal, char** cursor);
  int (*test_cursor)(sd_journal* journal, const char* cursor);
  int (*get_fd)(sd_journal* journal);
  int (*process)(sd_journal* journal);
};

/// Loads the library, until the end of the process. False and `error` if this
/// machine does not have it.
bool loadLibsystemd(std::string& error);

/// Only after loadLibsystemd() has returned true.
const Libsystemd& libsystemd();

}  // namespace vorn::launch
