#include "output/table.h"

#include <algorithm>
#include <numeric>

namespace vorn::launch {
namespace {

OutputText sequenceFor(Colour colour) {
  switch (colour) {
    case Colour::GREEN:
      return "\x1b[32m";
    case Colour::YELLOW:
      return "\x1b[33m";
    case Colour::RED:
      return "\x1b[31m";
    case Colour::FAINT:
      return "\x1b[2m";
    case Colour::BOLD:
      return "\x1b[1m";
    case Colour::NONE:
      break;
  }
  return {};
}

std::vector<std::vector<Cell>> linesOf(const Table& table) {
  std::vector<std::vector<Cell>> lines;
  if (!table.header.empty()) {
    std::vector<Cell> header;
    for (const OutputText& title : table.header) {
      header.push_back({title, Colour::BOLD});
    }
    lines.push_back(std::move(header));
  }
  lines.insert(lines.end(), table.rows.begin(), table.rows.end());
  return lines;
}

std::vector<size_t> widthsOf(const std::vector<std::vector<Cell>>& lines) {
  std::vector<size_t> widths;
  for (const auto& line : lines) {
    widths.resize(std::max(widths.size(), line.size()));
    for (size_t i = 0; i < line.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(line[i].text));
    }
  }
  return widths;
}

template <typename Line>
void removeFrom(Line& line, size_t column) {
  if (column < line.size()) {
    line.erase(line.begin() + static_cast<std::ptrdiff_t>(column));
  }
}

}  // namespace

OutputText coloured(const OutputText& text, Colour colour) {
  if (colour == Colour::NONE || text.empty()) return text;
  return sequenceFor(colour) + text + "\x1b[0m";
}

void printAligned(Output& out, const Table& table, bool has_colours) {
  const auto lines = linesOf(table);
  const std::vector<size_t> widths = widthsOf(lines);
  for (const auto& line : lines) {
    OutputText gap;
    for (size_t i = 0; i < line.size(); ++i) {
      const Cell& cell = line[i];
      if (!cell.text.empty()) {
        out << gap
            << (has_colours ? coloured(cell.text, cell.colour) : cell.text);
        gap = {};
      }
      gap += spaces(widths[i] - displayWidth(cell.text) + 2);
    }
    out << "\n";
  }
}

void fitInto(Table& table, size_t width, const std::vector<size_t>& removable) {
  std::vector<size_t> widths = widthsOf(linesOf(table));
  const auto total = [&] {
    const size_t gaps = widths.empty() ? 0 : 2 * (widths.size() - 1);
    return std::accumulate(widths.begin(), widths.end(), gaps);
  };
  std::vector<size_t> removed;
  for (const size_t number : removable) {
    if (total() <= width) return;
    // Each column removed before it has moved it to the left.
    const auto shift =
        std::count_if(removed.begin(), removed.end(),
                      [&](size_t each) { return each < number; });
    const size_t column = number - static_cast<size_t>(shift);
    removeFrom(widths, column);
    removeFrom(table.header, column);
    for (auto& row : table.rows) removeFrom(row, column);
    removed.push_back(number);
  }
  if (widths.empty() || total() <= width) return;
  const size_t rest = total() - widths.front();
  const size_t room = width > rest ? width - rest : 1;
  if (!table.header.empty()) {
    table.header.front() = truncated(table.header.front(), room);
  }
  for (auto& row : table.rows) {
    row.front().text = truncated(row.front().text, room);
  }
}

void truncateLastColumn(Table& table, size_t width) {
  const std::vector<size_t> widths = widthsOf(linesOf(table));
  if (widths.empty()) return;
  const size_t others = std::accumulate(widths.begin(), widths.end() - 1,
                                        2 * (widths.size() - 1));
  const size_t title =
      table.header.empty() ? 1 : displayWidth(table.header.back());
  const size_t room = std::max(width > others ? width - others : 0, title);
  for (auto& row : table.rows) {
    if (row.size() == widths.size()) {
      row.back().text = truncated(row.back().text, room);
    }
  }
}

void printPlain(Output& out, const Table& table) {
  for (const auto& line : linesOf(table)) {
    for (size_t i = 0; i < line.size(); ++i) {
      if (i > 0) out << "\t";
      out << line[i].text;
    }
    out << "\n";
  }
}

}  // namespace vorn::launch
