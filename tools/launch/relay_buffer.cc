#include "tools/launch/relay_buffer.h"

#include <assert.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace vantrel {

ssize_t RelayBuffer::FillFrom(int fd, size_t max_bytes,
                              std::string_view* seen) {
  const size_t want = std::min(max_bytes, GetFreeCount());
  assert(want > 0);  // of nothing a read makes the end of the stream
  if (bytes_.size() - end_ < want) {
    memmove(bytes_.data(), bytes_.data() + begin_, GetByteCount());
    end_ -= begin_;
    begin_ = 0;
  }
  char* const place = bytes_.data() + end_;
  const ssize_t count = read(fd, place, want);
  if (count <= 0) return count;
  end_ += static_cast<size_t>(count);
  *seen = std::string_view(place, static_cast<size_t>(count));
  return count;
}

ssize_t RelayBuffer::DrainTo(int fd, size_t max_bytes, std::string_view* seen) {
  const char* const place = bytes_.data() + begin_;
  const ssize_t count = write(fd, place, std::min(max_bytes, GetByteCount()));
  if (count <= 0) return count;
  *seen = std::string_view(place, static_cast<size_t>(count));
  begin_ += static_cast<size_t>(count);
  if (begin_ == end_) begin_ = end_ = 0;
  return count;
}

}  // namespace vantrel
