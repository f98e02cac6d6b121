#include "tools/launch/relay_direction.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <asio/post.hpp>
#include <utility>

#include "support/peer_socket.h"

namespace vantrel {
namespace {

// How much of the link's pace each of the three places may hold: the queue
// between the source's writer and us, the buffer here, the queue in front of
// the destination. With the companion's part that makes about 40 ms.
constexpr std::chrono::milliseconds kShare{8};

// What is kept ready in front of a shaped link, and in which pieces it is read.
// It takes the place of two of the shares: we may come late by that much before
// the link runs dry.
constexpr std::chrono::milliseconds kLead{16};
constexpr std::chrono::milliseconds kPiece{4};

// One message of the size that a Bluetooth link has.
constexpr size_t kMinHeldBytes = 1024;
constexpr size_t kMaxHeldBytes = 64 * 1024;

// The kernel doubles what it is given, for its own records. Its default.
constexpr size_t kMaxQueueBytes = 104 * 1024;

// The queues are set again when the pace has changed by so much.
constexpr double kPaceStep = 1.5;

// What is on its way through a shaped link, and what waits to enter it.
size_t GetCapacity(const shape_t& shape) {
  if (!HasEffect(shape)) return kMaxHeldBytes;
  if (shape.bits_per_second == 0) return 16 * kMaxHeldBytes;
  return kMaxHeldBytes + shape.chunk_bytes +
         static_cast<size_t>(GetBytesOnTheWay(shape));
}

}  // namespace

RelayDirection::RelayDirection(asio::io_context& loop, Descriptor& from,
                               Descriptor& to, options_t options,
                               UniqueFd feeder)
    : loop_(loop),
      from_(from),
      to_(to),
      options_(std::move(options)),
      feeder_(std::move(feeder)),
      buffer_(GetCapacity(options_.shape)),
      timer_(loop, [this] { Work(); }) {
  if (HasEffect(options_.shape)) shaper_.emplace(options_.shape);
  LimitQueues();
}

void RelayDirection::Work() {
  const SteadyTime now = GetSteadyTime();
  const bool has_read = Read(now);
  const bool has_written = Write(now);
  const bool can_only_wait =
      awaits_read_ && (awaits_write_ || buffer_.GetByteCount() == 0);
  if (IsOver() || can_only_wait) return;
  if (has_read || has_written) {
    WorkLater();
  } else if (shaper_) {
    AwaitTime(now);
  }
}

void RelayDirection::WorkLater() {
  if (std::exchange(is_working_later_, true)) return;
  asio::post(loop_, lifetime_.MakeHandler([this] {
    is_working_later_ = false;
    Work();
  }));
}

bool RelayDirection::Read(SteadyTime now) {
  const size_t room = GetRoom(now);
  if (awaits_read_ || state_ != State::kFlowing || room == 0) return false;
  std::string_view seen;
  const ssize_t count = buffer_.FillFrom(from_.GetFd(), room, &seen);
  if (count < 0 && errno == EINTR) return true;
  if (count < 0 && errno == EAGAIN) {
    AwaitRead();
    return false;
  }
  if (count <= 0) {
    FinishReading(count < 0 ? errno : 0);
    return false;
  }
  if (shaper_) shaper_->Enter(seen.size(), now);
  if (options_.on_read) options_.on_read(seen);
  // There was no more; what comes next is told.
  if (seen.size() < room) AwaitRead();
  return true;
}

bool RelayDirection::Write(SteadyTime now) {
  const size_t due = GetDueBytes(now);
  if (awaits_write_ || IsOver() || due == 0) return false;
  std::string_view seen;
  const ssize_t count = buffer_.DrainTo(to_.GetFd(), due, &seen);
  if (count < 0 && errno == EINTR) return true;
  if (count < 0 && errno != EAGAIN) {
    write_error_ = errno;
    SetState(State::kBroken);
    return false;
  }
  if (count > 0) {
    pace_.OnWritten(seen.size(), now);
    moved_byte_count_ += seen.size();
    if (shaper_) shaper_->Leave(seen.size());
    if (options_.on_written) options_.on_written(seen);
  }
  if (seen.size() < due) {
    pace_.OnBlocked(now);
    AwaitWrite();
  } else if (buffer_.GetByteCount() == 0) {
    pace_.OnIdle();
  }
  LimitQueues();
  EndDestination();
  return count > 0;
}

void RelayDirection::AwaitRead() {
  awaits_read_ = true;
  from_.WaitReadable();
}

void RelayDirection::OnReadable() {
  awaits_read_ = false;
  const uint64_t before = moved_byte_count_ + buffer_.GetByteCount();
  Work();
  const uint64_t after = moved_byte_count_ + buffer_.GetByteCount();
  if (before == after && awaits_read_ && state_ == State::kFlowing &&
      HasHungUp(from_.GetFd())) {
    FinishReading(EPIPE);
  }
}

void RelayDirection::AwaitWrite() {
  awaits_write_ = true;
  to_.WaitWritable();
}

void RelayDirection::OnWritable() {
  awaits_write_ = false;
  Work();
}

void RelayDirection::AwaitTime(SteadyTime now) {
  std::optional<SteadyTime> next;
  if (GetDueBytes(now) == 0) next = shaper_->GetNextTime();
  if (state_ == State::kFlowing && !awaits_read_ && GetRoom(now) == 0) {
    const SteadyTime has_room = shaper_->GetBusyUntil() - kLead;
    if (has_room > now && (!next || has_room < *next)) next = has_room;
  }
  if (!next) return;
  timer_.WaitUntil(*next);
}

size_t RelayDirection::GetRoom(SteadyTime now) const {
  const size_t free = buffer_.GetFreeCount();
  if (!shaper_) {
    const size_t limit = pace_.GetBytesIn(kShare, kMinHeldBytes, kMaxHeldBytes);
    const size_t held = buffer_.GetByteCount();
    // Not in small pieces: reads again once half of it has gone.
    return held <= limit / 2 ? std::min(limit - held, free) : 0;
  }
  if (shaper_->GetBusyUntil() - now > kLead) return 0;
  const uint64_t rate = options_.shape.bits_per_second / 8;
  if (rate == 0) return free;
  const auto piece =
      std::clamp<uint64_t>(rate * static_cast<uint64_t>(kPiece.count()) / 1000,
                           kMinHeldBytes / 2, kMaxHeldBytes);
  return std::min(static_cast<size_t>(piece), free);
}

size_t RelayDirection::GetDueBytes(SteadyTime now) const {
  return shaper_ ? shaper_->GetDueBytes(now) : buffer_.GetByteCount();
}

void RelayDirection::FinishReading(int error) {
  read_error_ = error;
  SetState(State::kEnding);
  EndDestination();
}

void RelayDirection::EndDestination() {
  if (state_ != State::kEnding || buffer_.GetByteCount() > 0) return;
  shutdown(to_.GetFd(), SHUT_WR);
  SetState(State::kEnded);
}

void RelayDirection::SetState(State state) {
  state_ = state;
  if (options_.on_end) options_.on_end();
}

void RelayDirection::LimitQueues() {
  const double pace =
      options_.shape.bits_per_second > 0
          ? static_cast<double>(options_.shape.bits_per_second) / 8
          : pace_.GetPace();
  if (limited_pace_ > 0 && pace < limited_pace_ * kPaceStep &&
      pace > limited_pace_ / kPaceStep) {
    return;
  }
  limited_pace_ = pace;
  const double bytes = pace * std::chrono::duration<double>(kShare).count();
  const size_t limit = std::clamp(
      static_cast<size_t>(std::min(bytes, static_cast<double>(kMaxQueueBytes))),
      kMinHeldBytes, kMaxQueueBytes);
  LimitUnsent(to_.GetFd(), limit);
  if (feeder_.Get() >= 0) LimitUnsent(feeder_.Get(), limit);
}

}  // namespace vantrel
