#pragma once

#include <stddef.h>

#include <string>

#include "tools/launch/output.h"

namespace vantrel {

// Writes lines to a descriptor that others may share and that nobody may read,
// without ever waiting for a reader: what cannot be written yet is kept up to
// kMaxWaitingBytes, and further lines are dropped and counted. Once the reader
// goes on, a line in their place tells how many.
class LineWriter {
 public:
  static constexpr size_t kMaxWaitingBytes = 64 * 1024;

  // In place of dropped lines comes their number between these two texts.
  // |fd| is borrowed and keeps its flags; |loop| outlives this.
  LineWriter(asio::io_context& loop, int fd, std::string before_count,
             std::string after_count);

  void Write(const std::string& line);

  // Waits at most so long for the reader. How many lines it has not taken.
  size_t Finish(int timeout_ms);

 private:
  void TellDropped();

  Output output_;
  const std::string before_count_;
  const std::string after_count_;
  size_t dropped_ = 0;
};

}  // namespace vantrel
