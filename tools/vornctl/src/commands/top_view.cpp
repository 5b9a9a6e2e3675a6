#include "commands/top_view.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <sstream>

#include "live/node_cells.h"

namespace vorn::launch {
namespace {

constexpr char kAllKeys[] =
    "Up/Down  s start  t stop  r restart  e enable  d disable  / filter  "
    "! failing  l log  i why  ? help  q quit";
// The line of keys: the first one that fits the width of the screen.
constexpr const char* kKeyLines[] = {
    kAllKeys,
    "Up/Down  s start  t stop  r restart  e enable  d disable  ? help  q quit",
    "s start t stop r restart ? help q quit", "? help  q quit"};
// Fits into 40 columns and, with the line below it, into 10 rows.
constexpr const char* kHelp[] = {"Up/Down j/k         select a node",
                                 "PgUp/PgDn Home/End  select a node",
                                 "s t r               start, stop, restart",
                                 "e d                 enable, disable",
                                 "N S P C M U R       sort by this column",
                                 "/ !                 filter; only failing",
                                 "l i                 log; why this state",
                                 "u                   update all nodes",
                                 "q                   quit"};

/// The cells of a node. A row of a node that does not run has one colour.
std::vector<Cell> cellsOf(const NodeView& view) {
  std::vector<Cell> cells;
  for (const TopColumn& column : topColumns()) {
    cells.push_back(std::strcmp(column.name, "state") == 0
                        ? stateOrPhase(view)
                        : cellFor(view, column.name));
  }
  const Colour colour = stateOrPhase(view).colour;
  if (colour == Colour::GREEN) return cells;
  for (Cell& cell : cells) cell.colour = colour;
  return cells;
}

void drawReturnLine() {
  Screen::write(LINES - 1, "Press a key to return.", A_DIM);
  (void)refresh();
}

}  // namespace

void drawSummary(const LauncherProcess& launcher, const TopList& list,
                 const std::string& position) {
  std::map<std::string, size_t> counts;
  for (const NodeView& view : list.all()) ++counts[wordFor(view.condition)];
  OutputText text = "launcher ";
  text += launcher.pid == 0 ? "?" : OutputText(launcher.pid);
  text += "  " + OutputText(list.all().size()) + " nodes";
  for (const auto& [word, number] : counts) {
    text += word == counts.begin()->first ? ": " : ", ";
    text += number + (" " + terminalText(word));
  }
  // Last, since it may be long.
  if (!launcher.launchFile.empty()) {
    text += "  " + terminalText(launcher.launchFile);
  }
  const auto width = static_cast<size_t>(COLS);
  const OutputText end = truncated(terminalText(position), width);
  if (end.empty()) {
    Screen::write(0, text, A_NORMAL);
    return;
  }
  const size_t room = width - displayWidth(end);
  const OutputText begin = room > 2 ? truncated(text, room - 2) : OutputText();
  Screen::write(0, begin + spaces(room - displayWidth(begin)) + end, A_NORMAL);
}

void drawNodes(const Screen& screen, const TopList& list, size_t first, int row,
               size_t rows, bool has_titles) {
  std::vector<Cell> titles;
  std::vector<size_t> widths;
  for (const TopColumn& column : topColumns()) {
    titles.push_back({terminalText(column.title), Colour::BOLD});
    widths.push_back(std::strlen(column.title));
  }
  std::vector<std::vector<Cell>> lines;
  for (const NodeView* const view : list.shown()) {
    lines.push_back(cellsOf(*view));
    for (size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(lines.back()[i].text));
    }
  }
  // A long name is truncated in favour of the other columns.
  widths[0] = std::min(widths[0], static_cast<size_t>(COLS / 2));
  if (has_titles) screen.writeCells(row - 1, titles, widths, A_NORMAL);
  for (size_t i = first; i < lines.size() && i < first + rows; ++i) {
    screen.writeCells(row + static_cast<int>(i - first), lines[i], widths,
                      i == list.selectedIndex() ? A_REVERSE : A_NORMAL);
  }
}

void drawLines(const std::string& title, const std::vector<std::string>& lines,
               int row, int end) {
  if (row >= end) return;
  Screen::write(row, terminalText(title), A_BOLD);
  const auto room = static_cast<size_t>(end - row - 1);
  size_t i = lines.size() > room ? lines.size() - room : 0;
  for (; i < lines.size(); ++i) {
    Screen::write(++row, terminalText(lines[i]), A_NORMAL);
  }
}

void drawKeyLine() {
  OutputText line;
  for (const char* const each : kKeyLines) {
    line = terminalText(each);
    if (displayWidth(line) <= static_cast<size_t>(COLS)) break;
  }
  Screen::write(LINES - 1, line, A_DIM);
}

void drawHelp() {
  int row = 0;
  for (const char* const line : kHelp) {
    Screen::write(row++, terminalText(line), A_NORMAL);
  }
  drawReturnLine();
}

void drawText(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  for (int row = 0; row < LINES - 1 && std::getline(lines, line); ++row) {
    Screen::write(row, terminalText(line), row == 0 ? A_BOLD : A_NORMAL);
  }
  drawReturnLine();
}

}  // namespace vorn::launch
