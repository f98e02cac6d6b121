#pragma once

#include <stddef.h>
#include <stdint.h>

#include <asio/io_context.hpp>
#include <functional>
#include <optional>
#include <string_view>

#include "common/unique_fd.h"
#include "support/descriptor.h"
#include "support/lifetime.h"
#include "support/pace_meter.h"
#include "support/timer.h"
#include "tools/launch/relay_buffer.h"
#include "tools/launch/shaper.h"

namespace vantrel {

// Moves the bytes of one direction from one descriptor to another, both
// non-blocking. Borrows both; two directions may share them. When the source
// ends and everything was written, ends the destination's stream too.
//
// What waits here is bounded by time: a few milliseconds of the pace at which
// the destination takes bytes, or, with a shape, of the shape's rate; at most
// 64 KiB and at least one message. The same bound is set for what the kernel
// keeps in front of the destination, and between the source's writer and us.
class RelayDirection {
 public:
  // Called with bytes that crossed the link, in order.
  using Tap = std::function<void(std::string_view bytes)>;
  struct options_t {
    shape_t shape;
    Tap on_read;  // at most one of the two is set
    Tap on_written;
    std::function<void()> on_end;  // when GetState() is not kFlowing any more
  };
  enum class State {
    kFlowing,
    kEnding,  // the source has ended; some bytes are still held
    kEnded,
    kBroken,  // the destination failed; what was held is lost
  };

  // |feeder| is what the source's bytes are written to, where that is on this
  // machine: its queue is kept short as well.
  RelayDirection(asio::io_context& loop, Descriptor& from, Descriptor& to,
                 options_t options, UniqueFd feeder = UniqueFd());
  RelayDirection(const RelayDirection&) = delete;
  RelayDirection& operator=(const RelayDirection&) = delete;

  // Begins to relay. From then on it waits for both descriptors, whose handlers
  // must call the two below.
  void Start() { Work(); }
  void OnReadable();  // of |from|
  void OnWritable();  // of |to|

  // Gives |feeder| up: while it is open here, the source does not end.
  void CloseFeeder() { feeder_.Reset(); }

  State GetState() const { return state_; }
  bool IsOver() const {
    return state_ == State::kEnded || state_ == State::kBroken;
  }
  // The errno with which the source or the destination ended, or 0.
  int GetReadError() const { return read_error_; }
  int GetWriteError() const { return write_error_; }
  uint64_t GetMovedByteCount() const { return moved_byte_count_; }

 private:
  void Work();
  // Once others had their turn, in which more bytes come together.
  void WorkLater();
  bool Read(SteadyTime now);
  bool Write(SteadyTime now);
  void AwaitRead();
  void AwaitWrite();
  void AwaitTime(SteadyTime now);
  // How many bytes may be read now.
  size_t GetRoom(SteadyTime now) const;
  size_t GetDueBytes(SteadyTime now) const;
  void FinishReading(int error);
  void EndDestination();
  void SetState(State state);
  // Sets the kernel's queues by the pace.
  void LimitQueues();

  asio::io_context& loop_;
  Descriptor& from_;
  Descriptor& to_;
  const options_t options_;
  UniqueFd feeder_;
  RelayBuffer buffer_;
  std::optional<Shaper> shaper_;  // none: everything is due at once
  Timer timer_;
  PaceMeter pace_;
  double limited_pace_ = 0;  // by which the queues are set
  bool is_working_later_ = false;
  bool awaits_read_ = false;
  bool awaits_write_ = false;
  State state_ = State::kFlowing;
  int read_error_ = 0;
  int write_error_ = 0;
  uint64_t moved_byte_count_ = 0;
  const Lifetime lifetime_;
};

}  // namespace vantrel
