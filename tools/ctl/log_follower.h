#pragma once

#include <string>

#include "common/unique_fd.h"

namespace vantrel {

// Reads the lines that are appended to a file from now on. When another file
// takes its name, as in a rotation of logs, goes on with that one once the old
// one has ended; a file that was cut is read again from its start.
class LogFollower {
 public:
  // Far longer than any line of the daemon. Longer ones are left out.
  static constexpr size_t kMaxLineBytes = 256 * 1024;
  // The longest time that Next() takes is that of so many bytes.
  static constexpr size_t kMaxBytesAtOnce = 4 * 1024 * 1024;

  // Throws std::exception when |path| cannot be read, or is no regular file.
  explicit LogFollower(const std::string& path);

  // The next whole line, without its newline. False when there is none yet, or
  // when so much was read without one that the caller may want to look at the
  // time.
  [[nodiscard]] bool Next(std::string* line);

 private:
  // Appends to |bytes_|. False when there is nothing to read.
  bool Read();
  // Whether there may be more to read than there was.
  bool GoOnWithSuccessor();
  void Forget();

  const std::string path_;
  UniqueFd file_;
  std::string bytes_;             // read, not given out yet
  size_t begin_ = 0;              // of |bytes_|: where the next line begins
  size_t searched_ = 0;           // of |bytes_|: no line ends before here
  bool is_in_long_line_ = false;  // which is left out
};

}  // namespace vantrel
