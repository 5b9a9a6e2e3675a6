#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "node.h"

// The memory of the nodes. The launcher runs as long as its machine does, and
// each fork copies its page tables, so it keeps little memory, and keeps it
// contiguous. The tree that is read from the launch file is ten times as large
// as the nodes, which would otherwise remain scattered over all of that memory.

namespace vorn::launch {

/// Memory for one Node, next to that of the others. Throws std::bad_alloc. It
/// is reused, and never returned to the system.
void* allocateNode();

/// Frees memory that allocateNode() returned, for the next node.
void deallocateNode(void* memory) noexcept;

/// Moves the texts and lists of all nodes close together, each as large as
/// necessary, and returns free memory to the system. Call it once the launch
/// file has been read and its tree is destroyed; no pointer into a text or a
/// list of a node may be in use. The nodes themselves are not moved.
void packNodes(const std::vector<std::unique_ptr<Node>>& nodes);

}  // namespace vorn::launch
