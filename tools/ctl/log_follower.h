#pragma once

#include <string>

#include "programs/unique_fd.h"

namespace vantrel {

// Reads the lines that are appended to a file from now on. When another file
// takes its name, as in a rotation of logs, goes on with that one once the old
// one has ended; a file that was cut is read again from its start.
class LogFollower {
 public:
  // Throws std::system_error when |path| cannot be read.
  explicit LogFollower(const std::string& path);

  // The next whole line, without its newline. False when there is none yet.
  [[nodiscard]] bool Next(std::string* line);

 private:
  // Whether there may be more to read than there was.
  bool GoOnWithSuccessor();

  const std::string path_;
  UniqueFd file_;
  std::string bytes_;  // read, not given out yet
};

}  // namespace vantrel
