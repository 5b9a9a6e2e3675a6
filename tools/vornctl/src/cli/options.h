#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "output/duration.h"

// Values of options and arguments that CLI11 does not read by itself.

namespace vorn::launch {

/// The arguments of main() in CLI11's order, the last one first, with a mark
/// before each "[": CLI11 would read "[a,b]" as a list of two values.
std::vector<std::string> protectedArguments(int argc, char** argv);

/// Removes the mark of protectedArguments().
void unprotect(std::string& argument);

/// A value of type `Target` that parseDuration() reads.
template <typename Target>
CLI::callback_t readDuration(Target& target) {
  return [&target](const CLI::results_t& texts) {
    const auto span = parseDuration(texts.back());
    if (!span)
      throw CLI::ValidationError("'" + texts.back() +
                                 "' is not a duration; write 10s, 500ms, "
                                 "1.5m or 2h");
    target = *span;
    return true;
  };
}

/// A line of at most 256 bytes that is safe to print as it is.
CLI::callback_t readReason(std::string& target);

/// A point in time that parsePointInTime() reads, in microseconds since the
/// epoch.
CLI::callback_t readPointInTime(int64_t& target);

/// The values of an option, in the order of its help.
template <typename Value>
using Words = std::vector<std::pair<std::string, Value>>;

template <typename Value>
std::string joined(const Words<Value>& words, const std::string& separator) {
  std::string text;
  for (const auto& word : words) {
    text += (text.empty() ? "" : separator) + word.first;
  }
  return text;
}

/// Adds an option whose value is one of these words; the help lists them.
template <typename Value>
CLI::Option* addChoice(CLI::App& app, const std::string& option, Value& target,
                       const std::string& description,
                       const Words<Value>& words) {
  const auto read = [option, &target, words](const CLI::results_t& texts) {
    for (const auto& [word, value] : words) {
      if (word != texts.back()) continue;
      target = value;
      return true;
    }
    throw CLI::ValidationError(
        option, "'" + texts.back() + "' is not one of " + joined(words, ", "));
  };
  return app.add_option(option, read, description)
      ->type_name(joined(words, "|"));
}

}  // namespace vorn::launch
