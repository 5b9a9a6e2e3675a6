#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "launchfile/source_text.h"

namespace vorn::launch {

enum class Severity { NOTE, WARNING, ERROR };

/// "note", "warning" or "error".
const char* wordFor(Severity severity);

/// One kind of diagnostic. The names are stable: users silence diagnostics by
/// them.
struct CheckInfo {
  const char* name;
  Severity severity;
  const char* summary;  // the problem in a few words
};

/// Every kind of diagnostic, in the order of the documentation.
const std::vector<CheckInfo>& allChecks();

/// The kind of this name; null if the name is unknown.
const CheckInfo* findCheck(const std::string& name);

/// Another location that a diagnostic refers to.
struct Note {
  SourceLocation location;
  std::string message;
};

struct Diagnostic {
  const CheckInfo* check = nullptr;
  SourceLocation location;
  std::string message;  // one sentence; texts of the file in it are raw
  std::vector<Note> notes;
};

// Limits for each file. The output says that the rest is omitted.
constexpr size_t kMostOfAKind = 100;      // diagnostics
constexpr size_t kMostNotes = 20;         // of a diagnostic
constexpr size_t kLongestMessage = 1000;  // in bytes

/// The diagnostics of one launch file.
class Diagnostics {
 public:
  /// Diagnostics with these names, or silenced by a comment in the document,
  /// are ignored. Adds the diagnostics of such comments.
  Diagnostics(const SourceText& document,
              const std::vector<std::string>& ignored_names);

  /// Adds a diagnostic unless it is silenced, repeated or beyond the limit.
  /// `check` is a name in allChecks(). Line 0 becomes the first line.
  void add(const std::string& check, SourceLocation location,
           const std::string& message, std::vector<Note> notes = {});

  /// Whether the limit of the diagnostics of this name is reached.
  bool isFull(const std::string& check) const;

  const std::vector<Diagnostic>& all() const { return diagnostics_; }

  /// Whether a diagnostic has this severity or a higher one.
  bool hasSeverity(Severity lowest) const;

  /// Sorts the diagnostics by location and adds a note about omitted ones.
  void settle();

 private:
  struct OfAKind {
    std::set<std::pair<SourceLocation, std::string>>
        shown;                           // location and message
    std::optional<SourceLocation> more;  // the first location beyond the limit
  };

  bool isSilenced(const std::string& check,
                  const SourceLocation& location) const;

  std::set<std::string> ignored_;
  std::map<int, std::set<std::string>> silenced_;  // by line
  std::map<const CheckInfo*, OfAKind> kinds_;
  std::vector<Diagnostic> diagnostics_;
};

}  // namespace vorn::launch
