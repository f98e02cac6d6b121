#pragma once

#include <stddef.h>

#include <string>

#include "programs/unique_fd.h"

namespace vantrel {

// Writes lines to a descriptor that others may share and that nobody may read,
// without ever waiting for a reader: what cannot be written yet is kept up to
// kMaxWaitingBytes, and further lines are dropped and counted. Once the reader
// goes on, a line in their place tells how many.
class LineWriter {
 public:
  static constexpr size_t kMaxWaitingBytes = 64 * 1024;

  // In place of dropped lines comes their number between these two texts.
  // |fd| is borrowed and keeps its flags.
  LineWriter(int fd, std::string before_count, std::string after_count);

  void Write(const std::string& line);

  // The descriptor to wait for until it is writable, or -1.
  int GetFdToWrite() const;
  // To be called when it is.
  void Flush();
  // Waits at most so long for the reader. How many lines it has not taken.
  size_t Finish(int timeout_ms);

 private:
  enum Means {
    kPlain,   // a file, or a descriptor of our own that does not block
    kSocket,  // a flag of the call keeps it from blocking
    kPolled,  // shared and blocking: asked before each small write
  };
  ssize_t WriteOnce();

  UniqueFd own_;  // another way to the same pipe or terminal; none otherwise
  int fd_;
  Means means_;
  const std::string before_count_;
  const std::string after_count_;
  std::string waiting_;
  size_t dropped_ = 0;
};

}  // namespace vantrel
