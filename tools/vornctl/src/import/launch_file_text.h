#pragma once

#include <string>

#include "import/imported.h"
#include "output/output_text.h"

namespace vorn::launch {

/// The launch file for the imported nodes, with a comment for each omitted
/// setting. A node with options of vornrun runs vornrun; if its arguments
/// cannot be in an `argv`, a comment has the text of a configuration file for
/// vornrun. `heading` is the first comment.
OutputText launchFileText(const Imported& imported, const std::string& heading);

}  // namespace vorn::launch
