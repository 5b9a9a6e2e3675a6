#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "launchfile/launch_file.h"

namespace vorn::launch {

/// Hides secrets in the texts of a report: the values of variables, and words
/// that follow "password", "token" and the like. It cannot recognize others.
class ReportMasking {
 public:
  /// Hides nothing.
  ReportMasking() = default;

  /// Hides the values of the variables in `file`, and the words that follow
  /// names of secrets in its arguments, except for paths and values
  /// of less than kShortestSecret bytes, which many other texts contain.
  explicit ReportMasking(const LaunchFile& file);

  /// Also hides the value in this line of the launcher's log, if it is about a
  /// variable: the launch file may have been changed since then.
  void learnFromLog(std::string_view line);

  /// The text with kHidden in place of secrets.
  std::string masked(std::string_view text) const;

  /// As masked(), for a line of the launcher's log, which contains the values
  /// of the global variables.
  std::string maskedLogLine(std::string_view line) const;

  static constexpr size_t kShortestSecret = 6;

 private:
  void add(const std::string& value);
  void addArguments(const LaunchFile::Node& node);
  void sortValues();

  bool is_active_ = false;
  std::vector<std::string> values_;  // the longest first
};

}  // namespace vorn::launch
