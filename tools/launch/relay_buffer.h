#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <string>

#include "tools/unique_fd.h"

namespace vantrel {

// What a relay holds between reading from one descriptor and writing to the
// other. Normally a pipe, through which the kernel moves bytes without copying
// them; plain memory where it cannot, or where the bytes must be seen.
class RelayBuffer {
 public:
  enum Mode {
    kMove,  // falls back to copying by itself where splicing does not work
    kCopy,
  };
  RelayBuffer(Mode mode, size_t max_bytes);

  size_t GetByteCount() const { return byte_count_; }
  // Also true for a pipe that has bytes left but no place for one more piece.
  bool IsFull() const { return is_full_ || byte_count_ >= max_bytes_; }

  // Reads once from |fd|, as far as there is room. The result is as read(2)'s:
  // 0 at the end of the stream, -1 with errno set. With |seen|, which needs
  // kCopy, appends what came to it as well.
  ssize_t FillFrom(int fd, std::string* seen);

  // Writes at most |max_bytes| of the oldest bytes to |fd|, once; as write(2).
  ssize_t DrainTo(int fd, size_t max_bytes, std::string* seen);

 private:
  ssize_t SpliceFrom(int fd);
  ssize_t ReadFrom(int fd, std::string* seen);
  // Goes on with memory, into which what the pipe holds is moved.
  void StopSplicing();

  const size_t max_bytes_;
  size_t byte_count_ = 0;
  bool is_full_ = false;
  bool is_splicing_;
  UniqueFd pipe_out_;   // read end
  UniqueFd pipe_in_;    // write end
  std::string memory_;  // from |offset_| on, oldest first
  size_t offset_ = 0;
};

}  // namespace vantrel
