#include "findings.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "text.h"

namespace vorn::launch {
namespace {

constexpr Severity kNote = Severity::NOTE;
constexpr Severity kWarning = Severity::WARNING;
constexpr Severity kError = Severity::ERROR;

constexpr CheckInfo kChecks[] = {
    // What ends the launcher when it reads the file: reading.cpp.
    {"syntax", kError, "no valid YAML"},
    {"null-value", kError, "nothing where a value must be"},
    {"not-a-text", kError, "a list or mapping where one value must be"},
    {"not-a-bool", kError, "a flag that is neither true nor false"},
    {"not-a-number", kError, "a sleep that is no whole number"},
    {"not-a-list", kError, "a 'required' that is no list"},
    {"not-a-key", kError, "a name or key that is nothing, or no text"},
    {"scalar-for-mapping", kError, "a single value where a mapping must be"},
    {"list-for-mapping", kError, "a list where a mapping must be"},
    // What is not read, or not applied as it stands: checks_document.cpp.
    {"second-document", kError, "a second document, which is not read"},
    {"repeated-section", kError,
     "a second 'vornnode' or 'configure', which is not read"},
    {"ignored-value", kWarning, "a value of a kind that means nothing"},
    {"no-nodes", kNote, "no node in the file"},
    {"unknown-key", kWarning, "a key that means nothing"},
    {"repeated-key", kWarning, "a key or variable that is there twice"},
    {"merge-key", kWarning, "'<<', which merges nothing"},
    {"unknown-ignore", kWarning, "a comment that silences nothing known"},
    // Nodes: checks_nodes.cpp.
    {"name-too-long", kError, "a node that cannot be controlled"},
    {"nul-in-name", kError, "a node's name with a NUL in it"},
    {"node-dropped", kWarning, "a node without a path"},
    {"duplicate-node", kWarning, "two nodes of one name"},
    {"sleep-wraps", kWarning, "a sleep that wraps around"},
    {"long-sleep", kWarning, "a sleep that holds up everything"},
    {"relative-path", kWarning, "a relative path without VORN_BIN_PATH"},
    {"quote-in-argv", kWarning, "quotes, which nothing takes away"},
    {"shell-in-argv", kWarning, "what only a shell understands"},
    {"space-in-argument", kWarning, "a tab or new line in an argument"},
    {"nul-in-text", kWarning, "a text that a NUL cuts off"},
    {"disabled-autostart", kWarning, "both disabled and not autostart"},
    // Variables: checks_environment.cpp.
    {"refused-variable", kWarning, "a name that no variable can have"},
    {"node-name-replaced", kWarning, "__VORN_NODE_NAME__ replaced"},
    {"launcher-path", kWarning, "a PATH by which ps or grep is not found"},
    {"launcher-library", kWarning, "libraries forced upon the launcher"},
    {"install-not-expanded", kWarning, "install:// where it means nothing"},
    {"install-misspelt", kWarning, "what was meant to be install://"},
    // `required`: checks_required.cpp.
    {"required-cycle", kError, "nodes that require each other"},
    {"required-unknown", kWarning, "a required node that does not exist"},
    {"required-self", kWarning, "a node that requires itself"},
    {"required-oneshot", kWarning, "a required node that ends disabled"},
    {"required-twice", kWarning, "a node that is required twice"},
    {"long-stop", kWarning, "a stop that takes too long"},
    // The machine: checks_host.cpp.
    {"missing-executable", kWarning, "a program that is not there"},
    {"executable-folder", kWarning, "a folder in the place of a program"},
    {"not-executable", kWarning, "a program that may not be executed"},
    {"wrong-format", kWarning, "a program for another machine, or none"},
    {"missing-interpreter", kWarning, "a program without its interpreter"},
    {"missing-tool", kWarning, "no ps or no grep"},
    {"writable-by-others", kWarning, "a file that any user can change"},
};

bool isBefore(const Finding& a, const Finding& b) {
  return std::tie(a.place, a.message) < std::tie(b.place, b.message);
}

bool isSame(const Finding& a, const Finding& b) {
  return a.check == b.check && a.place == b.place && a.message == b.message;
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

void Findings::add(const std::string& check, const Place& place,
                   const std::string& message, std::vector<Note> notes) {
  const CheckInfo* const info = findCheck(check);
  assert(info != nullptr);
  for (Note& note : notes) note.message = printable(note.message);
  findings_.push_back({info, place, printable(message), std::move(notes)});
}

void Findings::settle(const Document& document,
                      const std::vector<std::string>& ignored_names) {
  std::map<int, std::set<std::string>> silenced;
  for (const int line : document.linesWithIgnores()) {
    for (const std::string& name : document.ignoredAt(line)) {
      silenced[line].insert(name);
      if (findCheck(name) == nullptr) {
        add("unknown-ignore", {line, 1}, "there is no finding '" + name + "'");
      }
    }
  }
  const std::set<std::string> all(ignored_names.begin(), ignored_names.end());
  const auto is_silenced = [&](const Finding& finding) {
    const std::string name = finding.check->name;
    if (all.count(name) > 0) return true;
    const auto line = silenced.find(finding.place.line);
    return line != silenced.end() && line->second.count(name) > 0;
  };
  findings_.erase(
      std::remove_if(findings_.begin(), findings_.end(), is_silenced),
      findings_.end());
  std::stable_sort(findings_.begin(), findings_.end(), isBefore);
  findings_.erase(std::unique(findings_.begin(), findings_.end(), isSame),
                  findings_.end());
}

}  // namespace vorn::launch
