#pragma once

#include <stddef.h>

#include <memory>
#include <vector>

#include "tools/ctl/top_layout.h"

struct screen;  // the library's

namespace vantrel {

// The terminal while a program has all of it: shows lines and gives keys. One
// for a process. The terminal is as it was once this is destroyed, and also
// after SIGINT and SIGTERM.
class TopScreen {
 public:
  static constexpr int kNoKey = -1;

  // Throws std::runtime_error when standard input and output are no terminal,
  // or one that cannot place its cursor. No colours where NO_COLOR is set.
  TopScreen();
  TopScreen(const TopScreen&) = delete;
  TopScreen& operator=(const TopScreen&) = delete;
  ~TopScreen();

  // When the size changes, the next GetKey() gives a key without a meaning.
  size_t GetColumns() const;
  size_t GetLines() const;
  // Whether it shows more than ASCII.
  bool HasBlocks() const { return has_blocks_; }

  void Show(const std::vector<TextLine>& lines);
  // The next key that was pressed, without waiting, or kNoKey.
  int GetKey();

 private:
  screen* terminal_ = nullptr;
  bool has_blocks_ = false;
};

}  // namespace vantrel
