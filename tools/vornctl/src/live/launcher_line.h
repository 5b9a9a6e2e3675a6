#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "live/log_line.h"

// The texts of the lines that a launcher writes.

namespace vorn::launch {

/// The text between `prefix` and `suffix`; nothing if they do not enclose it.
std::optional<std::string> between(std::string_view text,
                                   std::string_view prefix,
                                   std::string_view suffix);

/// The number after `label`; 0 if there is none.
int numberAfter(std::string_view text, std::string_view label);

/// The name in a text such as "Node 'NAME' disabled", which ends with `suffix`.
std::optional<std::string> nodeIn(std::string_view text,
                                  std::string_view suffix);

/// Lines that a launcher writes only while it reads its launch file.
bool isLoadLine(std::string_view text);

/// Lines of a child between fork and exec.
bool isLineOfChild(const LogLine& line);

}  // namespace vorn::launch
