#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <optional>

#include "tools/launch/steady_time.h"

namespace vantrel {

// How many bytes a second a socket takes: between two times at which it was
// full it took exactly what its link carried. A time in which it was sometimes
// not full says that the link carries that much at least.
class PaceMeter {
 public:
  void OnWritten(size_t bytes) { written_bytes_ += bytes; }
  void OnBlocked(SteadyTime now);  // the socket is full
  void OnIdle(SteadyTime now);     // everything was written

  double GetBytesPerSecond() const { return pace_; }
  // What crosses the link in |time|.
  size_t GetBytesIn(std::chrono::milliseconds time) const;

 private:
  // Little enough that the first bytes make no queue on a Bluetooth link; what
  // is faster shows within the first stretch.
  static constexpr double kFirstGuess = 100e3;

  void Begin(SteadyTime now, bool is_full);

  double pace_ = kFirstGuess;
  bool is_measured_ = false;
  std::optional<SteadyTime> began_;
  bool was_full_ = false;       // all the time since |began_|
  uint64_t written_bytes_ = 0;  // since |began_|
};

}  // namespace vantrel
