#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <optional>

#include "support/steady_time.h"

namespace vantrel {

// How fast a link carries bytes, from what its socket takes: between two times
// at which the socket was full it took exactly what the link carried. A time in
// which it was not full says that the link carries that much at least.
class PaceMeter {
 public:
  // |bytes| were taken by the socket.
  void OnWritten(size_t bytes, SteadyTime now);
  // The socket is full.
  void OnBlocked(SteadyTime now);
  // There is nothing more to send: until the socket is full again, what it
  // takes says nothing of what the link could carry.
  void OnIdle() { blocked_.reset(); }

  // Bytes per second; a guess until something was measured.
  double GetPace() const { return pace_; }
  // What the link carries in |time|, not less than |min|, not more than |max|.
  size_t GetBytesIn(std::chrono::milliseconds time, size_t min,
                    size_t max) const;

 private:
  // Slow enough that the first bytes make no queue on a slow link; a fast one
  // is known after a few milliseconds.
  static constexpr double kFirstGuess = 250e3;

  double pace_ = kFirstGuess;
  bool is_measured_ = false;
  // What the link carries at least, idle or not.
  std::optional<SteadyTime> began_;
  uint64_t bytes_since_began_ = 0;
  // Since the socket was full, with something to send ever since.
  std::optional<SteadyTime> blocked_;
  uint64_t bytes_since_blocked_ = 0;
};

}  // namespace vantrel
