#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <string_view>
#include <vector>

namespace vantrel {

// The bytes that a relay holds, oldest first, at most a fixed number.
class RelayBuffer {
 public:
  explicit RelayBuffer(size_t capacity) : bytes_(capacity) {}

  size_t GetByteCount() const { return end_ - begin_; }
  size_t GetFreeCount() const { return bytes_.size() - GetByteCount(); }

  // Reads once from |fd|, at most |max_bytes| and what is free; neither is 0.
  // As read(2). |seen| is what came, until the next call.
  ssize_t FillFrom(int fd, size_t max_bytes, std::string_view* seen);

  // Writes the oldest bytes to |fd|, once, at most |max_bytes|; as write(2).
  // |seen| is what was written, until the next call.
  ssize_t DrainTo(int fd, size_t max_bytes, std::string_view* seen);

 private:
  std::vector<char> bytes_;
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace vantrel
