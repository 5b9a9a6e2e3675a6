#pragma once

#include "import/imported.h"
#include "import/supervisord_values.h"
#include "launchfile/source_text.h"

namespace vorn::launch {

/// Stores the settings of one process of a program of supervisord in the
/// members of `node`, except for its name. `keys` has the command. Throws
/// ImportError.
void convertSettings(const SourceText& file, const ProgramKeys& keys,
                     const ValueNames& names, ImportedNode& node);

}  // namespace vorn::launch
