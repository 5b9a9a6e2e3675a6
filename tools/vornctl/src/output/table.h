#pragma once

#include <vector>

#include "output/output.h"

namespace vorn::launch {

enum class Colour { NONE, GREEN, YELLOW, RED, FAINT, BOLD };

struct Cell {
  OutputText text;
  Colour colour = Colour::NONE;
};

/// Rows of cells for a terminal or a script.
struct Table {
  std::vector<OutputText> header;  // empty: none
  std::vector<std::vector<Cell>> rows;
};

/// Writes columns of equal width with two spaces between them, and no spaces
/// after the last cell of a line.
void printAligned(Output& out, const Table& table, bool has_colours);

/// Fits the table into `width` columns of a terminal: removes columns, by their
/// numbers in this order, and then truncates the texts of the first one.
void fitInto(Table& table, size_t width, const std::vector<size_t>& removable);

/// Fits the table into `width` columns of a terminal as far as truncating the
/// texts of the last one, to at least its title, can.
void truncateLastColumn(Table& table, size_t width);

/// Writes the texts with one tab between them.
void printPlain(Output& out, const Table& table);

/// The text in its colour for a terminal.
OutputText coloured(const OutputText& text, Colour colour);

}  // namespace vorn::launch
