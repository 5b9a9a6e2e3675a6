#pragma once

#include <string>
#include <vector>

#include "document.h"

namespace vorn::launch {

enum class Severity { NOTE, WARNING, ERROR };

/// "note", "warning" or "error".
const char* wordFor(Severity severity);

/// One kind of finding. The names are stable: people silence findings by them.
struct CheckInfo {
  const char* name;
  Severity severity;
  const char* summary;  // what is wrong, in a few words
};

/// Every kind of finding, in the order of the documentation.
const std::vector<CheckInfo>& allChecks();

/// The kind of this name; null if there is none.
const CheckInfo* findCheck(const std::string& name);

/// A second place that a finding is about.
struct Note {
  Place place;
  std::string message;
};

struct Finding {
  const CheckInfo* check = nullptr;
  Place place;
  std::string message;  // printable, one line
  std::vector<Note> notes;
};

/// What is wrong with one launch file.
class Findings {
 public:
  /// `check` is a name in allChecks().
  void add(const std::string& check, const Place& place,
           const std::string& message, std::vector<Note> notes = {});

  const std::vector<Finding>& all() const { return findings_; }

  /// Leaves out what comments in the file or these names silence, and what is
  /// there twice, and sorts the rest by place.
  void settle(const Document& document,
              const std::vector<std::string>& ignored_names);

 private:
  std::vector<Finding> findings_;
};

}  // namespace vorn::launch
