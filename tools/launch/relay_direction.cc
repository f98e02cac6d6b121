#include "tools/launch/relay_direction.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>

namespace vantrel {
namespace {

// Enough that neither side waits for the other's turn, little enough that the
// daemon still notices soon when the companion stops reading.
constexpr size_t kMaxHeldBytes = 64 * 1024;

// What a slow link holds: what is on its way, and a few chunks that wait.
size_t GetBound(const shape_t& shape) {
  if (!shape.IsNeeded()) return kMaxHeldBytes;
  if (shape.bits_per_second == 0) return 16 * kMaxHeldBytes;
  const double seconds = static_cast<double>(shape.delay.count()) / 1e6;
  const double on_its_way =
      static_cast<double>(shape.bits_per_second) / 8 * seconds;
  const size_t waiting = std::max<size_t>(16 * 1024, 4 * shape.chunk_bytes);
  return waiting + static_cast<size_t>(std::min(on_its_way, 64e6));
}

RelayBuffer::Mode GetMode(const RelayDirection::options_t& options) {
  // A pipe has room for a number of pieces, not of bytes, and many small ones
  // would fill it long before a slow link's bound.
  return options.on_read || options.on_written || options.shape.IsNeeded()
             ? RelayBuffer::kCopy
             : RelayBuffer::kMove;
}

}  // namespace

RelayDirection::RelayDirection(int from, int to, const options_t& options)
    : from_(from),
      to_(to),
      options_(options),
      buffer_(GetMode(options), GetBound(options.shape)) {
  if (options.shape.IsNeeded()) shaper_.emplace(options.shape);
}

int RelayDirection::GetFdToRead() const {
  return state_ == kFlowing && !buffer_.IsFull() ? from_ : -1;
}

int RelayDirection::GetFdToWrite(SteadyTime now) const {
  return !IsOver() && GetDueBytes(now) > 0 ? to_ : -1;
}

std::optional<SteadyTime> RelayDirection::GetNextTime(SteadyTime now) const {
  if (IsOver() || !shaper_ || GetDueBytes(now) > 0) return std::nullopt;
  return shaper_->GetNextTime();
}

void RelayDirection::Read(SteadyTime now) {
  std::string seen;
  const ssize_t count =
      buffer_.FillFrom(from_, options_.on_read ? &seen : nullptr);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count <= 0) {
    read_error_ = count < 0 ? errno : 0;
    state_ = kEnding;
    return EndDestination();
  }
  if (shaper_) shaper_->Enter(static_cast<size_t>(count), now);
  if (options_.on_read) options_.on_read(seen);
}

void RelayDirection::Write(SteadyTime now) {
  std::string seen;
  const ssize_t count = buffer_.DrainTo(to_, GetDueBytes(now),
                                        options_.on_written ? &seen : nullptr);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (count < 0) {
    write_error_ = errno;
    state_ = kBroken;
    return;
  }
  if (shaper_) shaper_->Leave(static_cast<size_t>(count));
  moved_byte_count_ += static_cast<uint64_t>(count);
  if (options_.on_written) options_.on_written(seen);
  EndDestination();
}

size_t RelayDirection::GetDueBytes(SteadyTime now) const {
  return shaper_ ? shaper_->GetDueBytes(now) : buffer_.GetByteCount();
}

void RelayDirection::EndDestination() {
  if (state_ != kEnding || buffer_.GetByteCount() > 0) return;
  shutdown(to_, SHUT_WR);
  state_ = kEnded;
}

}  // namespace vantrel
