#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "import/imported.h"
#include "import/ini_text.h"
#include "launchfile/source_text.h"

// The values of a configuration of supervisord. The functions throw ImportError
// if a value is not correct.

namespace vorn::launch {

/// The values of "%(NAME)s" in one process.
using ValueNames = std::map<std::string, std::string>;

/// The keys of a program.
using ProgramKeys = std::map<std::string, IniEntry>;

/// A value with its "%(...)s" replaced.
struct ExpandedValue {
  std::string text;
  bool hasVariables = false;  // "${X}" in `text`, from "%(ENV_X)s"
};

/// A value such as "true" or "off".
bool flagOf(const SourceText& file, const IniEntry& entry);

long readNumber(const SourceText& file, const IniEntry& entry);

/// Replaces "%(NAME)s", "%(NAME)02d" and "%%".
class Expansion {
 public:
  Expansion(const SourceText& file, const ValueNames& names)
      : file_(file), names_(names) {}

  ExpandedValue expand(const IniEntry& entry) const;

 private:
  /// Appends the value of the name at `percent`; returns its last character.
  size_t appendName(const IniEntry& entry, size_t percent,
                    ExpandedValue& result) const;

  const SourceText& file_;
  const ValueNames& names_;
};

std::string withoutOuterBlanks(const std::string& text);

/// The variables of a value such as A="1",B=2.
Assignments readVariables(const SourceText& file, const IniEntry& entry,
                          const std::string& value);

/// A size such as "50MB" for vornrun.
std::string sizeFor(std::string size);

}  // namespace vorn::launch
