#pragma once

#include <string>

#include "tools/unique_fd.h"

namespace vantrel {

// Reads the lines that are appended to a file from now on.
class LogFollower {
 public:
  // Throws std::system_error when |path| cannot be read.
  explicit LogFollower(const std::string& path);

  // The next whole line, without its newline. False when there is none yet.
  [[nodiscard]] bool Next(std::string* line);

 private:
  UniqueFd file_;
  std::string bytes_;  // read, not given out yet
};

}  // namespace vantrel
