#pragma once

#include <string>
#include <vector>

#include "launchfile/source_text.h"

// Files of sections "[NAME]" with lines "KEY=VALUE". Both functions throw
// ImportError for other lines.

namespace vorn::launch {

struct IniEntry {
  std::string key;
  std::string value;  // without the blanks around it
  int line = 0;
};

struct IniSection {
  std::string name;
  int line = 0;
  std::vector<IniEntry> entries;  // in file order; a key can be repeated
};

/// As Supervisor reads its configuration: keys in lower case, "KEY: VALUE" as
/// well; indented lines continue a value; ";" and "#" start a comment at the
/// start of a line or after a blank.
std::vector<IniSection> readSupervisordText(const SourceText& file);

/// As systemd reads a unit: a backslash at the end continues a line; "#" and
/// ";" start a comment at the start of a line.
std::vector<IniSection> readUnitText(const SourceText& file);

}  // namespace vorn::launch
