#pragma once

#include <yaml-cpp/yaml.h>

#include <string>

#include "launchfile/launch_file.h"

// Facts about a YAML text that yaml-cpp does not report.

namespace vorn::launch {

SourceLocation locationOf(const YAML::Mark& mark);

/// The location of the value of a key. For a null and an alias this is after
/// the colon of the key: yaml-cpp reports the next token and the anchor.
SourceLocation locationOfValue(const SourceText& document,
                               const YAML::Node& key, const YAML::Node& value);

/// The kind of a value in the words of a user: "a list", or a scalar in quotes.
std::string kindOf(const YAML::Node& value);

/// The start of the second document of the text, which the launcher does not
/// read; `root` is the root of the first one. Line 0: there is only one.
SourceLocation findSecondDocument(const YAML::Node& root,
                                  const std::string& text);

/// The error for a text that yaml-cpp refused with this exception. If a tab in
/// the indentation is the cause, the error says so; the exception usually
/// describes a consequence of the tab.
LoadError syntaxError(const SourceText& document,
                      const YAML::Exception& exception);

}  // namespace vorn::launch
