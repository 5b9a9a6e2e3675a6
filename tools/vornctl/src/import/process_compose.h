#pragma once

#include <vector>

#include "import/imported.h"

namespace vorn::launch {

/// The processes in the YAML files of process-compose; a process is after those
/// in its `depends_on`. Throws ImportError.
Imported importProcessCompose(const std::vector<SourceText>& files);

}  // namespace vorn::launch
