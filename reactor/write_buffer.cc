#include "reactor/write_buffer.h"

#include <assert.h>
#include <errno.h>
#include <string.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <utility>

#include "common/log.h"

namespace vantrel {
namespace {

// The link queues about this many messages before it stops asking for more.
constexpr size_t kMaxStringsPerWrite = 32;

}  // namespace

void WriteBuffer::Append(std::string bytes) {
  queued_byte_count_ += static_cast<uint32_t>(bytes.size());
  queue_.push_back(std::move(bytes));
}

// With a limit, what remains of the front string is cut to 16 bits before it
// is compared with the limit. That is seen on the wire: of 65537 bytes the
// first write takes 1. Kept for compatibility. Only a cut remainder of 0 that
// still has bytes behind it (65536) writes a full chunk, since a write of 0
// bytes would be repeated for ever.
size_t WriteBuffer::NextChunkSize() const {
  const size_t remaining = queue_.front().size() - front_offset_;
  const size_t cut = static_cast<uint16_t>(remaining);
  if (cut == 0 && remaining > 0) return max_write_size_;
  return std::min<size_t>(max_write_size_, cut);
}

int WriteBuffer::WriteSome(const Socket& socket) const {
  const char* const front = queue_.front().data() + front_offset_;
  if (max_write_size_ != 0) return socket.Write(front, NextChunkSize());
  std::array<iovec, kMaxStringsPerWrite> pieces;
  size_t count = 0;
  for (auto next = queue_.begin();
       next != queue_.end() && count < pieces.size(); ++next, ++count) {
    // What is only written from is not const in this structure.
    pieces[count] = {const_cast<char*>(next->data()), next->size()};
  }
  pieces[0] = {const_cast<char*>(front), queue_.front().size() - front_offset_};
  return socket.WriteGathered(pieces.data(), static_cast<int>(count));
}

bool WriteBuffer::Drain(const Socket& socket) {
  while (!queue_.empty()) {
    const int written = WriteSome(socket);
    if (written < 0) {
      if (errno == EAGAIN) return true;
      LOGW("Error writing to socket: %s", strerror(errno));
      return false;
    }
    RemoveWritten(static_cast<uint32_t>(written));
  }
  return true;
}

void WriteBuffer::RemoveWritten(uint32_t bytes) {
  assert(bytes <= queued_byte_count_);
  written_byte_count_ += bytes;
  queued_byte_count_ -= bytes;
  front_offset_ += bytes;
  while (!queue_.empty() && front_offset_ >= queue_.front().size()) {
    front_offset_ -= static_cast<uint32_t>(queue_.front().size());
    queue_.pop_front();
  }
}

}  // namespace vantrel
