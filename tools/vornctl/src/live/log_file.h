#pragma once

#include <cstdint>
#include <string>

#include "live/log_source.h"

// Logs in files. The functions are those of log_source.h, for FILE and
// STANDARD_INPUT.

namespace vorn::launch {

/// Reads the file, and those of its rotated neighbours (NAME.1, NAME.2.gz) that
/// can have records from `since_us`.
bool readLogFiles(const LogLocation& location, int64_t since_us,
                  const LogReader& reader, std::string& error,
                  LogPosition* end);

/// Reads at most about the last `size` bytes of the file itself. `is_all` is
/// set if that includes every record from `since_us` of the log.
bool readLogFileEnd(const LogLocation& location, int64_t size, int64_t since_us,
                    const LogReader& reader, bool& is_all, std::string& error,
                    LogPosition* end);

/// Reads standard input to its end.
bool readLogInput(int64_t since_us, const LogReader& reader,
                  std::string& error);

}  // namespace vorn::launch
