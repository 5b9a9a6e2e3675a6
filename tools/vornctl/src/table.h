#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace vorn::launch {

enum class Colour { NONE, GREEN, YELLOW, RED, FAINT, BOLD };

struct Cell {
  std::string text;  // printable
  Colour colour = Colour::NONE;
};

/// Rows of cells for a terminal or for a script.
struct Table {
  std::vector<std::string> header;  // empty: none
  std::vector<std::vector<Cell>> rows;
};

/// Writes columns of equal width with two spaces between them; nothing behind
/// the last cell of a line.
void printAligned(std::ostream& out, const Table& table, bool has_colours);

/// Writes the texts with one tab between them.
void printPlain(std::ostream& out, const Table& table);

/// The text in its colour for a terminal.
std::string coloured(const std::string& text, Colour colour);

}  // namespace vorn::launch
