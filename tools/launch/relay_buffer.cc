#include "tools/launch/relay_buffer.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace vantrel {
namespace {

constexpr unsigned kSpliceFlags = SPLICE_F_MOVE | SPLICE_F_NONBLOCK;

// The ways in which a kernel says that a kind of descriptor cannot be spliced.
bool IsSpliceRefused() {
  return errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
}

}  // namespace

RelayBuffer::RelayBuffer(Mode mode, size_t max_bytes)
    : max_bytes_(max_bytes), is_splicing_(mode == kMove) {
  int ends[2];
  if (!is_splicing_) return;
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    is_splicing_ = false;
    return;
  }
  pipe_out_.Reset(ends[0]);
  pipe_in_.Reset(ends[1]);
  // Without the larger size there is less room, that is all.
  fcntl(ends[1], F_SETPIPE_SZ, static_cast<int>(max_bytes));
}

ssize_t RelayBuffer::FillFrom(int fd, std::string* seen) {
  if (is_splicing_) {
    const ssize_t count = SpliceFrom(fd);
    if (count >= 0 || !IsSpliceRefused()) return count;
    StopSplicing();
  }
  return ReadFrom(fd, seen);
}

ssize_t RelayBuffer::SpliceFrom(int fd) {
  const ssize_t count = splice(fd, nullptr, pipe_in_.Get(), nullptr,
                               max_bytes_ - byte_count_, kSpliceFlags);
  if (count > 0) byte_count_ += static_cast<size_t>(count);
  // Either side may be the reason; waiting for room is right for both, since
  // the next drain asks again.
  if (count < 0 && errno == EAGAIN) is_full_ = byte_count_ > 0;
  return count;
}

ssize_t RelayBuffer::ReadFrom(int fd, std::string* seen) {
  char bytes[64 * 1024];
  const size_t room = std::min(max_bytes_ - byte_count_, sizeof(bytes));
  const ssize_t count = read(fd, bytes, room);
  if (count <= 0) return count;
  memory_.append(bytes, static_cast<size_t>(count));
  if (seen != nullptr) seen->append(bytes, static_cast<size_t>(count));
  byte_count_ += static_cast<size_t>(count);
  return count;
}

ssize_t RelayBuffer::DrainTo(int fd, size_t max_bytes, std::string* seen) {
  const size_t want = std::min(max_bytes, byte_count_);
  ssize_t count = -1;
  if (is_splicing_) {
    count = splice(pipe_out_.Get(), nullptr, fd, nullptr, want, kSpliceFlags);
    if (count < 0 && IsSpliceRefused()) StopSplicing();
  }
  if (!is_splicing_) count = write(fd, memory_.data() + offset_, want);
  if (count <= 0) return count;
  const auto written = static_cast<size_t>(count);
  is_full_ = false;
  byte_count_ -= written;
  if (is_splicing_) return count;
  if (seen != nullptr) seen->append(memory_, offset_, written);
  offset_ += written;
  if (offset_ < memory_.size() / 2) return count;
  // Moves at most as many bytes as were written since the last time.
  memory_.erase(0, offset_);
  offset_ = 0;
  return count;
}

void RelayBuffer::StopSplicing() {
  is_splicing_ = false;
  is_full_ = false;
  memory_.resize(byte_count_);
  size_t got = 0;
  while (got < byte_count_) {
    const ssize_t count =
        read(pipe_out_.Get(), memory_.data() + got, byte_count_ - got);
    if (count <= 0) break;  // cannot be: the pipe holds exactly these bytes
    got += static_cast<size_t>(count);
  }
  pipe_out_.Reset();
  pipe_in_.Reset();
}

}  // namespace vantrel
