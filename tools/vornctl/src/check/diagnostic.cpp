#include "check/diagnostic.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <tuple>
#include <utility>

namespace vorn::launch {
namespace {

constexpr Severity kNote = Severity::NOTE;
constexpr Severity kWarning = Severity::WARNING;
constexpr Severity kError = Severity::ERROR;

constexpr CheckInfo kChecks[] = {
    // Errors that terminate the launcher while it reads: launchfile/parser.cpp.
    {"syntax", kError, "invalid YAML"},
    {"other-language", kError, "a file that is not YAML"},
    {"null-value", kError, "a missing value"},
    {"not-a-text", kError, "a list or mapping instead of a single value"},
    {"not-a-bool", kError, "a flag that is neither true nor false"},
    {"not-a-number", kError, "a sleep that is not a whole number"},
    {"not-a-list", kError, "a 'required' that is not a list"},
    {"not-a-key", kError, "a name or key that is missing or not a text"},
    {"scalar-for-mapping", kError, "a single value instead of a mapping"},
    {"list-for-mapping", kError, "a list instead of a mapping"},
    // Parts that are ignored or changed: document_rules.cpp.
    {"second-document", kError, "a second document, which is not read"},
    {"repeated-section", kError,
     "a second 'vornnode' or 'configure', which is not read"},
    {"ignored-value", kWarning, "a value of a kind that is ignored"},
    {"no-nodes", kNote, "no node in the file"},
    {"unknown-key", kWarning, "an unknown key"},
    {"repeated-key", kWarning, "a repeated key or variable"},
    {"merge-key", kWarning, "'<<', which does not merge"},
    {"unknown-ignore", kWarning, "a comment with an unknown name"},
    // Nodes: node_rules.cpp.
    {"name-too-long", kError, "a node that cannot be controlled"},
    {"name-like-option", kWarning, "a node's name that contains an option"},
    {"nul-in-name", kError, "a node's name with a NUL in it"},
    {"node-dropped", kWarning, "a node without a path"},
    {"duplicate-node", kWarning, "two nodes with the same name"},
    {"sleep-wraps", kWarning, "a sleep that wraps around"},
    {"long-sleep", kWarning, "a sleep that blocks the launcher for long"},
    {"short-sleep", kNote, "a sleep that seems to be in seconds"},
    {"relative-path", kWarning, "a relative path without VORN_BIN_PATH"},
    {"shell-in-path", kWarning, "a path with arguments or shell syntax"},
    {"quote-in-argv", kWarning, "quotes in an argument, which are not removed"},
    {"shell-in-argv", kWarning, "shell syntax in an argument"},
    {"space-in-argument", kWarning, "a tab or new line in an argument"},
    {"nul-in-text", kWarning, "a text that ends at a NUL"},
    {"disabled-autostart", kWarning, "both disabled and not autostart"},
    {"daemonizes", kWarning, "a program that moves to the background"},
    {"vornrun-option", kError, "an invalid option of vornrun"},
    // Variables: variable_rules.cpp.
    {"refused-variable", kWarning, "a name that no variable can have"},
    {"node-name-replaced", kWarning, "__VORN_NODE_NAME__ replaced"},
    {"launcher-path", kWarning, "a PATH without ps or grep"},
    {"launcher-library", kWarning,
     "a library variable that affects the launcher"},
    {"variable-not-expanded", kWarning, "shell syntax in a variable's value"},
    {"install-not-expanded", kWarning, "install:// where it is not expanded"},
    {"install-misspelt", kWarning, "a misspelt install://"},
    // `required`: required_rules.cpp.
    {"required-cycle", kError, "nodes that require each other"},
    {"required-unknown", kWarning, "a required node that does not exist"},
    {"required-self", kWarning, "a node that requires itself"},
    {"required-oneshot", kWarning, "a required node that a stop disables"},
    {"required-twice", kWarning, "a node that is required twice"},
    {"long-stop", kWarning, "a stop that takes too long"},
    // The machine: host_rules.cpp.
    {"missing-executable", kWarning, "a missing program"},
    {"executable-directory", kWarning, "a directory instead of a program"},
    {"not-executable", kWarning, "a program that is not executable"},
    {"wrong-format", kWarning, "a file that this machine cannot execute"},
    {"missing-interpreter", kWarning, "a program without its interpreter"},
    {"vornrun-file", kWarning, "a file that vornrun cannot read"},
    {"vornrun-user", kWarning, "a user or group that does not exist"},
    {"vornrun-privileges", kWarning,
     "a setuid program, which loses its parent death signal"},
    {"missing-tool", kWarning, "no ps or no grep"},
    {"clone-refused", kWarning, "a refused system call that each stop needs"},
    {"writable-by-others", kWarning, "a file that any user can change"},
    // Its replacement: apply_rules.cpp.
    {"interrupted-apply", kWarning, "an apply that was interrupted"},
};

bool isBefore(const Diagnostic& a, const Diagnostic& b) {
  return std::tie(a.location, a.message) < std::tie(b.location, b.message);
}

/// The message, with an ellipsis for the middle of one that is too long.
std::string shortened(const std::string& message) {
  if (message.size() <= kLongestMessage) return message;
  const auto is_inside = [&](size_t position) {
    return (static_cast<unsigned char>(message[position]) & 0xc0U) == 0x80U;
  };
  size_t begin = kLongestMessage / 2;
  size_t end = message.size() - kLongestMessage / 2;
  while (begin > 0 && is_inside(begin)) --begin;
  while (end < message.size() && is_inside(end)) ++end;
  return message.substr(0, begin) + "…" + message.substr(end);
}

}  // namespace

const char* wordFor(Severity severity) {
  switch (severity) {
    case Severity::NOTE:
      return "note";
    case Severity::WARNING:
      return "warning";
    case Severity::ERROR:
      break;
  }
  return "error";
}

const std::vector<CheckInfo>& allChecks() {
  static const std::vector<CheckInfo> checks(std::begin(kChecks),
                                             std::end(kChecks));
  return checks;
}

const CheckInfo* findCheck(const std::string& name) {
  static const auto by_name = [] {
    std::map<std::string, const CheckInfo*> index;
    for (const CheckInfo& check : allChecks()) index[check.name] = &check;
    return index;
  }();
  const auto found = by_name.find(name);
  return found == by_name.end() ? nullptr : found->second;
}

Diagnostics::Diagnostics(const SourceText& document,
                         const std::vector<std::string>& ignored_names)
    : ignored_(ignored_names.begin(), ignored_names.end()) {
  for (const int line : document.linesWithIgnores()) {
    const auto names = document.ignoredAt(line);
    silenced_[line].insert(names.begin(), names.end());
  }
  for (const auto& [line, names] : silenced_) {
    for (const std::string& name : names) {
      if (findCheck(name) != nullptr) continue;
      add("unknown-ignore", {line, 1}, "unknown diagnostic '" + name + "'");
    }
  }
}

bool Diagnostics::isSilenced(const std::string& check,
                             const SourceLocation& location) const {
  if (ignored_.count(check) > 0) return true;
  const auto line = silenced_.find(location.line);
  return line != silenced_.end() && line->second.count(check) > 0;
}

void Diagnostics::add(const std::string& check, SourceLocation location,
                      const std::string& message, std::vector<Note> notes) {
  const CheckInfo* const info = findCheck(check);
  assert(info != nullptr);
  if (location.line < 1) location = {1, 1};
  if (isSilenced(check, location)) return;
  OfAKind& kind = kinds_[info];
  if (kind.shown.size() == kMostOfAKind) {
    if (!kind.more) kind.more = location;
    return;
  }
  const std::string text = shortened(message);
  if (!kind.shown.emplace(location, text).second) return;
  if (notes.size() > kMostNotes) {
    notes.resize(kMostNotes);
    notes.push_back({notes.back().location, "further locations are not shown"});
  }
  for (Note& note : notes) note.message = shortened(note.message);
  diagnostics_.push_back({info, location, text, std::move(notes)});
}

bool Diagnostics::isFull(const std::string& check) const {
  const auto kind = kinds_.find(findCheck(check));
  return kind != kinds_.end() && kind->second.shown.size() == kMostOfAKind;
}

bool Diagnostics::hasSeverity(Severity lowest) const {
  return std::any_of(diagnostics_.begin(), diagnostics_.end(),
                     [&](const Diagnostic& diagnostic) {
                       return diagnostic.check->severity >= lowest;
                     });
}

void Diagnostics::settle() {
  for (const auto& [info, kind] : kinds_) {
    if (!kind.more) continue;
    diagnostics_.push_back({info,
                            *kind.more,
                            "only the first " + std::to_string(kMostOfAKind) +
                                " diagnostics of this kind are shown",
                            {}});
  }
  std::stable_sort(diagnostics_.begin(), diagnostics_.end(), isBefore);
}

}  // namespace vorn::launch
