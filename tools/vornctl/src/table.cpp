#include "table.h"

#include <algorithm>

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

}  // namespace

OutputText coloured(const OutputText& text, Colour colour) {
  if (colour == Colour::NONE || text.empty()) return text;
  return sequenceFor(colour) + text + "\x1b[0m";
}

void printAligned(Output& out, const Table& table, bool has_colours) {
  const auto lines = linesOf(table);
  std::vector<size_t> widths;
  for (const auto& line : lines) {
    widths.resize(std::max(widths.size(), line.size()));
    for (size_t i = 0; i < line.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(line[i].text));
    }
  }
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
