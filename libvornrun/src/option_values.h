#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "run_settings.h"

// The values of vornrun's options. The parsing functions return an empty
// result if the text is not a valid value.

namespace vorn::run {

/// A decimal number from `least` to `most`, without blanks.
std::optional<long> parseNumber(std::string_view text, long least, long most);

/// "500ms", "5s" or "5", "2min", "1h"; at most a year.
std::optional<milliseconds> parseDuration(std::string_view text);

/// "1s..60s", or "5s" for a delay that does not grow. `first` is greater than
/// zero.
std::optional<Backoff> parseBackoff(std::string_view text);

/// "5/60s"; both numbers are greater than zero.
std::optional<GiveUp> parseGiveUp(std::string_view text);

/// Bytes: "4096", "64K", "10M", "2G", powers of 1024.
std::optional<uint64_t> parseSize(std::string_view text);

/// "TERM", "SIGTERM" or "15".
std::optional<int> parseSignal(std::string_view text);

/// "nofile=1024:4096", or "core=unlimited" for both limits.
std::optional<Limit> parseLimit(std::string_view text);

/// The name of a limit that parseLimit() returns.
const char* limitName(int resource);

/// "fifo:20", "rr:20", "batch", "idle" or "other".
std::optional<Scheduling> parseScheduling(std::string_view text);

/// "0,2-3" as for taskset(1): the numbers, in the order of the text.
std::optional<std::vector<int>> parseCpuList(std::string_view text);

/// "realtime:4", "best-effort:7" or "idle"; the level is 4 if it is missing.
std::optional<IoPriority> parseIoPriority(std::string_view text);

/// Any condition: "path:/p", "tcp:HOST:PORT", "unix:/p", "exec:COMMAND",
/// "http://...", "https://...", "file:/p", "notify" or "fd:N".
std::optional<Condition> parseCondition(std::string_view text);

/// The text from which parseCondition() returns this condition.
std::string conditionText(const Condition& condition);

/// "NAME=VALUE", as parseEnvironmentFile() accepts the name.
std::optional<std::pair<std::string, std::string>> parseVariable(
    std::string_view text);

/// HOST and PORT of a TCP condition's value; the brackets around an IPv6
/// address are removed.
std::pair<std::string, std::string> splitHostPort(const std::string& value);

}  // namespace vorn::run
