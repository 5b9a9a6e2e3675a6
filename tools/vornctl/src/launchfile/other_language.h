#pragma once

#include <string>

#include "launchfile/source_text.h"

namespace vorn::launch {

/// The language of a text that has no nodes as YAML, with an article, and the
/// place of its first line: "an XML file". Empty if the text resembles none.
Text otherLanguageOf(const std::string& text);

}  // namespace vorn::launch
