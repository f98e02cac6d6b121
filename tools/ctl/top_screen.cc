#include "tools/ctl/top_screen.h"

#include <langinfo.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <stdexcept>

// Its short names are functions then, and in nobody's way.
#define NCURSES_NOMACROS
#include <curses.h>

namespace vantrel {
namespace {

enum : short { kGoodPair = 1, kBadPair, kTitlePair };

attr_t ToAttributes(TextStyle style) {
  switch (style) {
    case TextStyle::kTitle:
      return COLOR_PAIR(kTitlePair) | A_BOLD;
    case TextStyle::kGood:
      return COLOR_PAIR(kGoodPair);
    case TextStyle::kBad:
      return COLOR_PAIR(kBadPair) | A_BOLD;
    case TextStyle::kHeading:
      return A_REVERSE;
    case TextStyle::kDim:
      return A_DIM;
    case TextStyle::kPlain:
      break;
  }
  return A_NORMAL;
}

// Without colours every pair is the terminal's own.
void StartColours() {
  if (getenv("NO_COLOR") != nullptr || !has_colors()) return;
  constexpr short kTerminalsOwn = -1;
  start_color();
  use_default_colors();
  init_pair(kGoodPair, COLOR_GREEN, kTerminalsOwn);
  init_pair(kBadPair, COLOR_RED, kTerminalsOwn);
  init_pair(kTitlePair, COLOR_CYAN, kTerminalsOwn);
}

}  // namespace

TopScreen::TopScreen() {
  if (isatty(STDIN_FILENO) != 1 || isatty(STDOUT_FILENO) != 1) {
    throw std::runtime_error("no terminal; see --once and --json");
  }
  setlocale(LC_CTYPE, "");
  has_blocks_ = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  terminal_ = newterm(nullptr, stdout, stdin);
  if (terminal_ == nullptr) {
    throw std::runtime_error(
        "this terminal (TERM) cannot place its cursor; see --once and --json");
  }
  StartColours();
  cbreak();
  noecho();
  nonl();
  curs_set(0);
  keypad(stdscr, TRUE);
  nodelay(stdscr, TRUE);
}

TopScreen::~TopScreen() {
  endwin();
  delscreen(terminal_);
}

size_t TopScreen::GetColumns() const {
  return static_cast<size_t>(std::max(getmaxx(stdscr), 1));
}

size_t TopScreen::GetLines() const {
  return static_cast<size_t>(std::max(getmaxy(stdscr), 1));
}

void TopScreen::Show(const std::vector<TextLine>& lines) {
  werase(stdscr);
  for (size_t i = 0; i < lines.size(); ++i) {
    wmove(stdscr, static_cast<int>(i), 0);
    for (const text_span_t& span : lines[i]) {
      wattrset(stdscr, static_cast<int>(ToAttributes(span.style)));
      waddstr(stdscr, span.text.c_str());
    }
  }
  wattrset(stdscr, A_NORMAL);
  wrefresh(stdscr);
}

int TopScreen::GetKey() {
  const int key = wgetch(stdscr);
  return key == ERR ? kNoKey : key;
}

}  // namespace vantrel
