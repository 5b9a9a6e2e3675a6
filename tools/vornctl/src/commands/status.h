#pragma once

#include <string>
#include <vector>

#include "context/exit_status.h"
#include "live/node_status.h"
#include "context/context.h"
#include "output/table.h"

namespace vorn::launch {

struct StatusOptions {
  std::vector<std::string> nodes;    // names and patterns; all if empty
  std::vector<std::string> columns;  // of statusColumns(); empty: default
  bool isJson = false;
  bool isPlain = false;  // tabs, bare numbers
  bool hasHeader = true;
};

struct Column {
  std::string name;
  std::string description;  // for the help
};

/// All columns, those that are shown by default first.
const std::vector<Column>& statusColumns();

/// Shows how nodes are. kNotRunning when nodes were named and one of them does
/// not run.
ExitStatus showStatus(Session& session, const StatusOptions& options);

/// The cell of this column in a table for a person.
Cell cellFor(const NodeView& view, const std::string& column);

/// Prints the names in the launch file, each followed by `separator`.
ExitStatus showNames(Session& session, char separator);

/// Tells which launcher answers, and how fast.
ExitStatus ping(Session& session);

}  // namespace vorn::launch
