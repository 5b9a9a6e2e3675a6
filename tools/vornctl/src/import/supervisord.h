#pragma once

#include <vector>

#include "import/imported.h"

namespace vorn::launch {

/// The programs in configuration files of Supervisor, in the order of their
/// priorities. Throws ImportError.
Imported importSupervisord(const std::vector<SourceText>& files);

}  // namespace vorn::launch
