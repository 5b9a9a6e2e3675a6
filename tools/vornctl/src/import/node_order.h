#pragma once

#include <map>
#include <set>
#include <string>

#include "import/imported.h"

namespace vorn::launch {

/// Puts each node after the nodes that `before` has under its name, and
/// otherwise keeps the order. Unknown names and cycles are ignored.
void orderNodes(Imported& imported,
                const std::map<std::string, std::set<std::string>>& before);

}  // namespace vorn::launch
