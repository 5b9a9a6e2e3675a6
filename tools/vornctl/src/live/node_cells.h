#pragma once

#include <string>
#include <vector>

#include "live/node_status.h"
#include "output/table.h"

namespace vorn::launch {

/// The name for all columns.
inline constexpr char kAllColumns[] = "wide";

/// A column of a table of nodes.
struct Column {
  std::string name;
  std::string description;  // for the help
};

/// All columns, those that are shown by default first.
const std::vector<Column>& statusColumns();

/// Replaces the name "wide" by the names of all columns.
std::vector<std::string> expandColumns(const std::vector<std::string>& names);

/// The cell of a column for users.
Cell cellFor(const NodeView& view, const std::string& column);

/// The cell of the state, or of vornrun's phase for a node that runs and is not
/// ready.
Cell stateOrPhase(const NodeView& view);

/// The cell of a column for scripts: one word or number, "-" for none.
Cell plainCellFor(const NodeView& view, const std::string& column);

}  // namespace vorn::launch
