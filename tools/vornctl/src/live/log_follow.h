#pragma once

#include <string>

#include "live/log_source.h"

namespace vorn::launch {

/// As followLog(), for a file.
bool followLogFile(const LogLocation& location, LogPosition& position,
                   int cancel_fd, const LogReader& reader, std::string& error);

}  // namespace vorn::launch
