#pragma once

#include <string>

#include "launchfile/source_text.h"

namespace vorn::launch {

/// The language of a text without nodes in YAML, with an article, and the
/// location of its first line: "an XML file". Empty if the language is not
/// recognized.
Text otherLanguageOf(const std::string& text);

}  // namespace vorn::launch
