#pragma once

#include <ncurses.h>

#include <cstddef>
#include <string>
#include <vector>

#include "output/table.h"

namespace vorn::launch {

/// The terminal in the modes of ncurses, from construction to destruction. It
/// has LINES rows and COLS columns.
class Screen {
 public:
  explicit Screen(bool has_colours);
  ~Screen();
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  /// Whether ncurses can draw on this terminal.
  bool isOpen() const;

  /// Replaces the content of a row by this text.
  static void write(int row, const OutputText& text, attr_t attribute);

  /// Writes cells into an empty row, each truncated to its width, and with
  /// `attribute` in addition to the one for its colour.
  void writeCells(int row, const std::vector<Cell>& cells,
                  const std::vector<size_t>& widths, attr_t attribute) const;

 private:
  attr_t attributeFor(Colour colour) const;

  SCREEN* screen_ = nullptr;
  bool has_colours_ = false;
};

/// The text of a line of input after a key. Enter and Escape set `is_edited` to
/// false; Escape removes the text.
std::string editedText(std::string text, int key, bool& is_edited);

}  // namespace vorn::launch
