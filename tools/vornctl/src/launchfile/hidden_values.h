#pragma once

#include <string>
#include <vector>

#include "launchfile/source_text.h"

namespace vorn::launch {

/// Replaces a text that is not shown.
inline constexpr char kHidden[] = "[hidden]";

/// The lines of a launch file, with kHidden in place of the values of all
/// variables, of the comments between them, and of anchored texts to which a
/// variable refers. If the file is not valid YAML, everything after the last
/// readable token is hidden; if it is not UTF-8, the whole text.
std::vector<std::string> linesWithoutValues(const SourceText& document);

}  // namespace vorn::launch
