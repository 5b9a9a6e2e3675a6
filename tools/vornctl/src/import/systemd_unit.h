#pragma once

#include <chrono>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "import/imported.h"
#include "import/ini_text.h"
#include "launchfile/source_text.h"

namespace vorn::launch {

/// The node of a unit: its name without ".service".
std::string nodeNameOf(const std::string& unit);

/// The text before the first `separator`, or all.
std::string textBefore(const std::string& text, char separator);

/// A duration such as "1min 30s" or "5"; nothing for others.
std::optional<std::chrono::milliseconds> unitDuration(const std::string& text);

/// The duration as a value for vornrun.
std::string durationText(std::chrono::milliseconds duration);

/// One service unit.
class UnitImporter {
 public:
  UnitImporter(const SourceText& file, std::string name)
      : file_(file), name_(std::move(name)) {
    node_.name = nodeNameOf(name_);
    read();
  }

  /// Converts the settings. `isImported` says whether a unit is a node.
  void convert(const std::set<std::string>& units) {
    units_ = &units;
    addCommand();
    addIdentity();
    addVariables();
    addLimits();
    addScheduling();
    addOutput();
    addReadiness();
    addRestarts();
    addRelations();
    addRest();
  }

  ImportedNode& node() { return node_; }
  /// The units in this setting, such as After=.
  std::vector<std::string> unitsIn(const std::string& key) {
    std::vector<std::string> units;
    for (const IniEntry* entry : take(key)) {
      for (const std::string& unit : split(expanded(entry->value), ' ')) {
        units.push_back(unit);
      }
    }
    return units;
  }

 private:
  void read();
  std::vector<const IniEntry*> take(const std::string& key);
  const IniEntry* takeLast(const std::string& key);
  std::string expanded(const std::string& text);
  std::string specifier(char letter) const;
  void addOption(const std::string& key, const char* option);
  void addDuration(const std::string& key, const char* option);

  void addCommand();
  void addWords(const IniEntry& entry, std::vector<std::string> words);
  void addIdentity();
  void addVariables();
  void addLimits();
  void addScheduling();
  void addOutput();
  void addReadiness();
  void addRestarts();
  void addRelations();
  void addRest();

  const SourceText& file_;
  std::string name_;
  std::vector<IniEntry> entries_;  // of [Unit], [Service] and [Install]
  std::set<std::string> taken_;    // the keys that are converted
  const std::set<std::string>* units_ = nullptr;
  ImportedNode node_;
};

}  // namespace vorn::launch
