#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "node.h"

// What memory the launcher keeps. It lives for as long as its machine, and each
// fork copies its page tables: what it keeps is to be what it needs, close
// together. The launch file is read into a tree of objects that takes ten times
// as much as the nodes, which would stay spread over all of that.

namespace vorn::launch {

/// Memory for one Node, side by side with the others'. Throws std::bad_alloc.
/// It is never given back to the system, but used again.
void* allocateNode();

/// Takes back what allocateNode() returned.
void deallocateNode(void* memory) noexcept;

/// Moves the texts and lists of all nodes close together, each as large as it
/// must be, and gives what is free back to the system. To be called once the
/// launch file has been read and its tree is gone; no pointer into a text or a
/// list of a node may be in use. The nodes themselves stay where they are.
void packNodes(const std::vector<std::unique_ptr<Node>>& nodes);

}  // namespace vorn::launch
