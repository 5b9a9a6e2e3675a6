#include "commands/top_screen.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>

namespace vorn::launch {
namespace {

/// Gives a second stop signal the effect of the first one. If it terminated the
/// process, the terminal would stay in its present modes.
void keepStopSignals() {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    (void)::sigaction(signal, nullptr, &action);
    action.sa_flags &= ~static_cast<int>(SA_RESETHAND);
    (void)::sigaction(signal, &action, nullptr);
  }
}

}  // namespace

Screen::Screen(bool has_colours) {
  screen_ = ::newterm(nullptr, stdout, stdin);
  if (!isOpen()) return;
  keepStopSignals();
  (void)::cbreak();
  (void)::noecho();
  (void)nodelay(stdscr, true);
  (void)::keypad(stdscr, true);
  // Milliseconds after Escape in which the rest of another key can arrive.
  (void)::set_escdelay(25);
  (void)::curs_set(0);
  has_colours_ = has_colours && ::has_colors();
  if (!has_colours_) return;
  (void)::start_color();
  (void)::use_default_colors();
  for (const int colour : {COLOR_GREEN, COLOR_YELLOW, COLOR_RED}) {
    const auto number = static_cast<short>(colour);
    (void)::init_pair(number, number, -1);
  }
}

Screen::~Screen() {
  if (screen_ == nullptr) return;
  (void)::endwin();
  ::delscreen(screen_);
}

bool Screen::isOpen() const {
  return screen_ != nullptr && ::tigetstr("cup") != nullptr;
}

attr_t Screen::attributeFor(Colour colour) const {
  switch (colour) {
    case Colour::GREEN:
      return has_colours_ ? COLOR_PAIR(COLOR_GREEN) : A_NORMAL;
    case Colour::YELLOW:
      return has_colours_ ? COLOR_PAIR(COLOR_YELLOW) : A_NORMAL;
    case Colour::RED:
      return has_colours_ ? COLOR_PAIR(COLOR_RED) : A_NORMAL;
    case Colour::FAINT:
      return A_DIM;
    case Colour::BOLD:
      return A_BOLD;
    case Colour::NONE:
      break;
  }
  return A_NORMAL;
}

void Screen::write(int row, const OutputText& text, attr_t attribute) {
  (void)::move(row, 0);
  (void)clrtoeol();
  (void)attrset(static_cast<int>(attribute));
  (void)mvaddstr(row, 0,
                 truncated(text, static_cast<size_t>(COLS)).str().c_str());
  (void)attrset(A_NORMAL);
}

void Screen::writeCells(int row, const std::vector<Cell>& cells,
                        const std::vector<size_t>& widths,
                        attr_t attribute) const {
  int column = 0;
  for (size_t i = 0; i < cells.size() && column < COLS; ++i) {
    const auto room = static_cast<size_t>(COLS - column);
    const OutputText text = truncated(cells[i].text, std::min(room, widths[i]));
    const auto kind = attribute | attributeFor(cells[i].colour);
    (void)attrset(static_cast<int>(kind));
    (void)mvaddstr(row, column, text.str().c_str());
    (void)attrset(static_cast<int>(attribute));
    column += static_cast<int>(displayWidth(text));
    const int next =
        column + static_cast<int>(widths[i] - displayWidth(text)) + 2;
    for (; column < next && column < COLS; ++column) (void)addch(' ');
  }
  (void)attrset(A_NORMAL);
}

std::string editedText(std::string text, int key, bool& is_edited) {
  constexpr int kEscape = 27;
  constexpr int kDelete = 127;
  if (key == '\n' || key == '\r' || key == KEY_ENTER) {
    is_edited = false;
  } else if (key == kEscape) {
    is_edited = false;
    text.clear();
  } else if (key == KEY_BACKSPACE || key == kDelete || key == '\b') {
    // All bytes of a character in UTF-8.
    while (!text.empty() && (text.back() & 0xC0) == 0x80) text.pop_back();
    if (!text.empty()) text.pop_back();
  } else if (key >= ' ' && key <= 0xFF) {
    text += static_cast<char>(key);
  }
  return text;
}

}  // namespace vorn::launch
