#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "commands/top_list.h"
#include "commands/top_screen.h"
#include "live/launcher_process.h"

// The parts of the screen of `top`. Each function writes into empty rows.

namespace vorn::launch {

/// The launcher, the number of nodes in each condition, and on the right
/// `position`.
void drawSummary(const LauncherProcess& launcher, const TopList& list,
                 const std::string& position);

/// The titles, if `has_titles`, and below them `rows` nodes from `first`.
/// `row` is the row of the first node.
void drawNodes(const Screen& screen, const TopList& list, size_t first, int row,
               size_t rows, bool has_titles);

/// The rows from `row` up to, not including, `end`: a title, and below it the
/// last lines that fit.
void drawLines(const std::string& title, const std::vector<std::string>& lines,
               int row, int end);

/// The most important keys, in the last row.
void drawKeyLine();

/// All keys.
void drawHelp();

/// Text on the whole screen. It is already escaped.
void drawText(const std::string& text);

}  // namespace vorn::launch
