#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "launchfile/source_text.h"

// The configuration of another supervisor in the terms of the launcher and of
// vornrun.

namespace vorn::launch {

/// Names and values, in order.
using Assignments = std::vector<std::pair<std::string, std::string>>;

/// A setting that the launch file does not have, or only similarly.
struct Omitted {
  std::string setting;  // as in the file: "stopsignal=INT"; empty: a remark
  std::string reason;   // and the replacement, if there is one
};

struct ImportedNode {
  std::string name;
  std::string program;
  std::vector<std::string> arguments;
  Assignments options;  // of vornrun, without dashes; a flag has an empty value
  Assignments environment;
  bool isStarted = true;   // with the launcher
  bool isOneshot = false;  // an exit is not followed by a restart
  std::vector<std::string> required;
  std::vector<Omitted> omitted;

  void omit(const std::string& key, const std::string& value,
            const std::string& reason) {
    omitted.push_back({key + "=" + value, reason});
  }
};

struct Imported {
  Assignments environment;  // of all nodes
  std::vector<ImportedNode> nodes;
  std::vector<Omitted> omitted;
};

/// A file that is not in the expected format; what() is "FILE:LINE: reason", or
/// "FILE: reason" for line 0.
class ImportError : public std::runtime_error {
 public:
  ImportError(const SourceText& file, int line, const std::string& reason)
      : std::runtime_error(file.name() + ":" +
                           (line > 0 ? std::to_string(line) + ":" : "") + " " +
                           reason) {}
};

/// The advice for a key in this table; nullptr if the table does not have the
/// key.
struct KeyAdvice {
  const char* keys;  // a blank before and after each
  const char* advice;
};
template <size_t kSize>
const char* adviceFor(const KeyAdvice (&table)[kSize], const std::string& key) {
  const std::string word = ' ' + key + ' ';
  for (const KeyAdvice& row : table) {
    if (std::string_view(row.keys).find(word) != std::string_view::npos) {
      return row.advice;
    }
  }
  return nullptr;
}

/// The directory of vornrun's logs for a program that wrote this file.
std::string logDirectoryFor(const std::string& file);

/// Turns the options that vornrun does not accept into comments.
void rejectInvalidOptions(Imported& imported);

/// Replaces names of programs without '/' by the files in the directories of
/// `path`, as the launcher does not search PATH. Reports those that are not
/// found.
void findPrograms(Imported& imported, const std::string& path);

}  // namespace vorn::launch
