#include "cli/options.h"

#include <chrono>

#include "output/output_text.h"
#include "output/point_in_time.h"

namespace vorn::launch {
namespace {

constexpr char kNoList = '\x01';
constexpr size_t kMaxReason = 256;

}  // namespace

std::vector<std::string> protectedArguments(int argc, char** argv) {
  std::vector<std::string> arguments;
  for (int i = argc - 1; i > 0; --i) {
    std::string argument = argv[i];
    if (argument[0] == '[' || argument[0] == kNoList) {
      argument.insert(argument.begin(), kNoList);
    }
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

void unprotect(std::string& argument) {
  if (!argument.empty() && argument[0] == kNoList) argument.erase(0, 1);
}

CLI::callback_t readPointInTime(int64_t& target) {
  return [&target](const CLI::results_t& texts) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto time = parsePointInTime(
        texts.back(),
        std::chrono::duration_cast<std::chrono::microseconds>(now).count());
    if (!time) {
      throw CLI::ValidationError(
          "'" + texts.back() +
          "' is not a time; write 1h for an hour ago, '2026-11-20 12:34' or "
          "2026-11-20T12:34:56Z");
    }
    target = *time;
    return true;
  };
}

CLI::callback_t readReason(std::string& target) {
  return [&target](const CLI::results_t& texts) {
    const std::string& text = texts.back();
    if (text.size() > kMaxReason) {
      throw CLI::ValidationError("the reason is longer than " +
                                 std::to_string(kMaxReason) + " bytes");
    }
    if (terminalText(text).str() != text) {
      throw CLI::ValidationError(
          "the reason contains control or invisible characters; write one line "
          "of plain text");
    }
    target = text;
    return true;
  };
}

}  // namespace vorn::launch
