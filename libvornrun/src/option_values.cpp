#include "option_values.h"

#include <sched.h>
#include <signal.h>
#include <strings.h>
#include <sys/resource.h>

#include <cstring>
#include <limits>

#include "environment_file.h"

namespace vorn::run {
namespace {

constexpr int kLongestYear = 366 * 24 * 3600;  // seconds

struct LimitName {
  const char* name;
  int resource;
};

constexpr LimitName kLimitNames[] = {
    {"as", RLIMIT_AS},
    {"core", RLIMIT_CORE},
    {"cpu", RLIMIT_CPU},
    {"data", RLIMIT_DATA},
    {"fsize", RLIMIT_FSIZE},
    {"locks", RLIMIT_LOCKS},
    {"memlock", RLIMIT_MEMLOCK},
    {"msgqueue", RLIMIT_MSGQUEUE},
    {"nice", RLIMIT_NICE},
    {"nofile", RLIMIT_NOFILE},
    {"nproc", RLIMIT_NPROC},
    {"rss", RLIMIT_RSS},
    {"rtprio", RLIMIT_RTPRIO},
    {"rttime", RLIMIT_RTTIME},
    {"sigpending", RLIMIT_SIGPENDING},
    {"stack", RLIMIT_STACK},
};

struct ConditionPrefix {
  const char* prefix;
  Condition::Kind kind;
};

constexpr ConditionPrefix kConditionPrefixes[] = {
    {"path:", Condition::Kind::PATH}, {"tcp:", Condition::Kind::TCP},
    {"unix:", Condition::Kind::UNIX}, {"exec:", Condition::Kind::EXEC},
    {"file:", Condition::Kind::FILE}, {"fd:", Condition::Kind::FD},
};

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

/// The digits at the start of `text`, which are removed from it. Nothing if it
/// starts with none or the number is too large.
std::optional<uint64_t> takeNumber(std::string_view& text) {
  constexpr uint64_t kMost = std::numeric_limits<uint64_t>::max();
  uint64_t number = 0;
  size_t length = 0;
  for (; length < text.size() && text[length] >= '0' && text[length] <= '9';
       ++length) {
    const auto digit = static_cast<uint64_t>(text[length] - '0');
    if (number > (kMost - digit) / 10) return std::nullopt;
    number = number * 10 + digit;
  }
  if (length == 0) return std::nullopt;
  text.remove_prefix(length);
  return number;
}

/// The two sides of the first `separator`; nothing without one.
std::optional<std::pair<std::string_view, std::string_view>> splitAt(
    std::string_view text, std::string_view separator) {
  const size_t found = text.find(separator);
  if (found == std::string_view::npos) return std::nullopt;
  return std::make_pair(text.substr(0, found),
                        text.substr(found + separator.size()));
}

std::optional<int> resourceNamed(std::string_view name) {
  for (const LimitName& known : kLimitNames) {
    if (name == known.name) return known.resource;
  }
  return std::nullopt;
}

std::optional<rlim_t> parseLimitValue(std::string_view text) {
  if (text == "unlimited" || text == "infinity") return RLIM_INFINITY;
  return parseSize(text);
}

bool isHostPort(const std::string& value) {
  const auto [host, port] = splitHostPort(value);
  return !host.empty() && parseNumber(port, 1, 65535);
}

bool isValidValue(const Condition& condition) {
  switch (condition.kind) {
    case Condition::Kind::PATH:
    case Condition::Kind::UNIX:
    case Condition::Kind::FILE:
      return startsWith(condition.value, "/");
    case Condition::Kind::TCP:
      return isHostPort(condition.value);
    case Condition::Kind::FD:
      return parseNumber(condition.value, 0, 1023).has_value();
    default:
      return !condition.value.empty();
  }
}

/// "2" or "2-5": adds the numbers to `cpus`.
bool addCpus(std::string_view text, std::vector<int>& cpus) {
  const auto range = splitAt(text, "-");
  const auto first =
      parseNumber(range ? range->first : text, 0, CPU_SETSIZE - 1);
  const auto last =
      range ? parseNumber(range->second, 0, CPU_SETSIZE - 1) : first;
  if (!first || !last || *last < *first) return false;
  for (long cpu = *first; cpu <= *last; ++cpu) {
    cpus.push_back(static_cast<int>(cpu));
  }
  return true;
}

}  // namespace

std::optional<long> parseNumber(std::string_view text, long least, long most) {
  const bool is_negative = startsWith(text, "-");
  if (is_negative) text.remove_prefix(1);
  const auto digits = takeNumber(text);
  if (!digits || !text.empty() ||
      *digits > static_cast<uint64_t>(std::numeric_limits<long>::max())) {
    return std::nullopt;
  }
  const long number =
      is_negative ? -static_cast<long>(*digits) : static_cast<long>(*digits);
  if (number < least || number > most) return std::nullopt;
  return number;
}

std::optional<milliseconds> parseDuration(std::string_view text) {
  const auto number = takeNumber(text);
  if (!number || *number > uint64_t{kLongestYear} * 1000) return std::nullopt;
  uint64_t unit = 0;
  if (text == "ms") unit = 1;
  if (text == "s" || text.empty()) unit = 1000;
  if (text == "min" || text == "m") unit = uint64_t{60} * 1000;
  if (text == "h") unit = uint64_t{3600} * 1000;
  const uint64_t count = *number * unit;
  if (unit == 0 || count > uint64_t{kLongestYear} * 1000) return std::nullopt;
  return milliseconds(count);
}

std::optional<Backoff> parseBackoff(std::string_view text) {
  const auto range = splitAt(text, "..");
  const auto first = parseDuration(range ? range->first : text);
  const auto longest = range ? parseDuration(range->second) : first;
  if (!first || !longest || first->count() == 0 || *longest < *first) {
    return std::nullopt;
  }
  return Backoff{*first, *longest};
}

std::optional<GiveUp> parseGiveUp(std::string_view text) {
  const auto parts = splitAt(text, "/");
  if (!parts) return std::nullopt;
  const auto count = parseNumber(parts->first, 1, 1000);
  const auto period = parseDuration(parts->second);
  if (!count || !period || period->count() == 0) return std::nullopt;
  return GiveUp{static_cast<unsigned>(*count), *period};
}

std::optional<uint64_t> parseSize(std::string_view text) {
  const auto number = takeNumber(text);
  if (!number || text.size() > 1) return std::nullopt;
  if (text.empty()) return number;
  constexpr char kUnits[] = "KMGT";
  const char* const unit = std::strchr(kUnits, text[0]);
  if (unit == nullptr || *unit == '\0') return std::nullopt;
  const auto shift = static_cast<unsigned>(10 * (unit - kUnits + 1));
  if (*number > std::numeric_limits<uint64_t>::max() >> shift) {
    return std::nullopt;
  }
  return *number << shift;
}

std::optional<int> parseSignal(std::string_view text) {
  if (const auto number = parseNumber(text, 1, SIGRTMAX)) {
    return static_cast<int>(*number);
  }
  std::string name(text);
  if (startsWith(name, "SIG")) name.erase(0, 3);
  for (int signal = 1; signal < NSIG; ++signal) {
    const char* const known = ::sigabbrev_np(signal);
    if (known != nullptr && name == known) return signal;
  }
  return std::nullopt;
}

std::optional<Limit> parseLimit(std::string_view text) {
  const auto parts = splitAt(text, "=");
  if (!parts) return std::nullopt;
  const auto resource = resourceNamed(parts->first);
  if (!resource) return std::nullopt;
  const auto values = splitAt(parts->second, ":");
  const auto soft = parseLimitValue(values ? values->first : parts->second);
  const auto hard = values ? parseLimitValue(values->second) : soft;
  if (!soft || !hard || *soft > *hard) return std::nullopt;
  return Limit{*resource, *soft, *hard};
}

const char* limitName(int resource) {
  for (const LimitName& known : kLimitNames) {
    if (resource == known.resource) return known.name;
  }
  return "?";
}

std::optional<Scheduling> parseScheduling(std::string_view text) {
  if (text == "other") return Scheduling{SCHED_OTHER, 0};
  if (text == "batch") return Scheduling{SCHED_BATCH, 0};
  if (text == "idle") return Scheduling{SCHED_IDLE, 0};
  const auto parts = splitAt(text, ":");
  if (!parts || (parts->first != "fifo" && parts->first != "rr")) {
    return std::nullopt;
  }
  const auto priority = parseNumber(parts->second, 1, 99);
  if (!priority) return std::nullopt;
  return Scheduling{parts->first == "rr" ? SCHED_RR : SCHED_FIFO,
                    static_cast<int>(*priority)};
}

std::optional<std::vector<int>> parseCpuList(std::string_view text) {
  std::vector<int> cpus;
  for (;;) {
    const auto parts = splitAt(text, ",");
    if (!addCpus(parts ? parts->first : text, cpus)) return std::nullopt;
    if (!parts) return cpus;
    text = parts->second;
  }
}

std::optional<IoPriority> parseIoPriority(std::string_view text) {
  constexpr int kIdleClass = 3;
  constexpr int kMiddleLevel = 4;
  if (text == "idle") return IoPriority{kIdleClass, 0};
  const auto parts = splitAt(text, ":");
  const std::string_view name = parts ? parts->first : text;
  const auto level = parts ? parseNumber(parts->second, 0, 7)
                           : std::optional<long>(kMiddleLevel);
  if (!level || (name != "realtime" && name != "best-effort")) {
    return std::nullopt;
  }
  return IoPriority{name == "realtime" ? 1 : 2, static_cast<int>(*level)};
}

std::optional<Condition> parseCondition(std::string_view text) {
  if (text == "notify") return Condition{Condition::Kind::NOTIFY, ""};
  if (startsWith(text, "http://") || startsWith(text, "https://")) {
    return Condition{Condition::Kind::HTTP, std::string(text)};
  }
  for (const ConditionPrefix& known : kConditionPrefixes) {
    if (!startsWith(text, known.prefix)) continue;
    Condition condition{known.kind,
                        std::string(text.substr(std::strlen(known.prefix)))};
    if (isValidValue(condition)) return condition;
  }
  return std::nullopt;
}

std::string conditionText(const Condition& condition) {
  if (condition.kind == Condition::Kind::NOTIFY) return "notify";
  for (const ConditionPrefix& known : kConditionPrefixes) {
    if (known.kind == condition.kind) return known.prefix + condition.value;
  }
  return condition.value;  // a URL
}

std::optional<std::pair<std::string, std::string>> parseVariable(
    std::string_view text) {
  const auto parts = splitAt(text, "=");
  if (!parts || !isVariableName(parts->first)) return std::nullopt;
  return std::make_pair(std::string(parts->first), std::string(parts->second));
}

std::pair<std::string, std::string> splitHostPort(const std::string& value) {
  const size_t colon = value.rfind(':');
  if (colon == std::string::npos) return {};
  std::string host = value.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  return {host, value.substr(colon + 1)};
}

}  // namespace vorn::run
