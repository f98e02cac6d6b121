#pragma once

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <optional>
#include <string>

#include "tools/launch/relay_buffer.h"
#include "tools/launch/shaper.h"

namespace vantrel {

// Moves the bytes of one direction from one descriptor to another, both
// non-blocking or sockets; borrows both. Holds a bounded number of bytes, and
// stops reading while it holds them. When the source ends and everything was
// written, ends the destination's stream too.
class RelayDirection {
 public:
  // Called with bytes that crossed the link, in order.
  using Tap = std::function<void(const std::string& bytes)>;
  struct options_t {
    shape_t shape;
    Tap on_read;  // at most one of the two is set
    Tap on_written;
  };
  enum State {
    kFlowing,
    kEnding,  // the source has ended; some bytes are still held
    kEnded,
    kBroken,  // the destination failed; what was held is lost
  };

  RelayDirection(int from, int to, const options_t& options);

  State GetState() const { return state_; }
  bool IsOver() const { return state_ == kEnded || state_ == kBroken; }
  // The errno with which the source or the destination ended, or 0.
  int GetReadError() const { return read_error_; }
  int GetWriteError() const { return write_error_; }
  uint64_t GetMovedByteCount() const { return moved_byte_count_; }

  // What to wait for: the descriptor to poll, or -1 for none.
  int GetFdToRead() const;
  int GetFdToWrite(SteadyTime now) const;
  // When to look again although no descriptor is ready.
  std::optional<SteadyTime> GetNextTime(SteadyTime now) const;

  // To be called when the descriptors are ready.
  void Read(SteadyTime now);
  void Write(SteadyTime now);

 private:
  size_t GetDueBytes(SteadyTime now) const;
  void EndDestination();

  const int from_;
  const int to_;
  const options_t options_;
  RelayBuffer buffer_;
  std::optional<Shaper> shaper_;  // none: everything is due at once
  State state_ = kFlowing;
  int read_error_ = 0;
  int write_error_ = 0;
  uint64_t moved_byte_count_ = 0;
};

}  // namespace vantrel
