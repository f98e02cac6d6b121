#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <deque>
#include <optional>
#include <string>

#include "support/steady_time.h"

namespace vantrel {

// How slow a link is made, in each direction by itself.
struct shape_t {
  uint64_t bits_per_second = 0;        // 0: as fast as it goes
  std::chrono::microseconds delay{0};  // each way
  size_t chunk_bytes = 0;              // largest single write, 0: any
};

inline bool HasEffect(const shape_t& shape) {
  return shape.bits_per_second > 0 || shape.delay.count() > 0 ||
         shape.chunk_bytes > 0;
}
// How many bytes are between the two ends of a full link; 0 without a rate.
double GetBytesOnTheWay(const shape_t& shape);

// "rate=2Mbit,delay=30ms,chunk=990", each part at most once and none needed:
// rate in bit, kbit, Mbit or Gbit per second, delay in us, ms or s, chunk in
// bytes up to 65535, all together within
// Shaper::kMaxMemoryBytes. None when |text| is something else; |reason| says
// what.
std::optional<shape_t> ParseShape(const std::string& text, std::string* reason);

// Decides when bytes may leave one direction of a slow link. Holds no bytes
// itself, only when each run of them is due. Bytes cross the link one after
// the other in chunks; a chunk is due when all of it has crossed, and the
// delay later.
class Shaper {
 public:
  static constexpr size_t kMaxMemoryBytes = 64 * 1024 * 1024;

  explicit Shaper(const shape_t& shape) : shape_(shape) {}

  // What a full link takes in each direction: its bytes, and a run for each of
  // their chunks.
  static double GetMemoryBytes(const shape_t& shape);

  // |bytes| entered the link.
  void Enter(size_t bytes, SteadyTime now);
  // How many bytes may be written in one piece now.
  size_t GetDueBytes(SteadyTime now) const;
  // |bytes|, not more than were due, were written.
  void Leave(size_t bytes);
  // When the bytes that entered last have crossed: what is later than now is
  // the queue in front of the link.
  SteadyTime GetBusyUntil() const { return busy_until_; }
  // When the next bytes are due; none while the link is empty.
  std::optional<SteadyTime> GetNextTime() const;

 private:
  struct run_t {
    size_t bytes;
    SteadyTime due;
  };
  SteadyTime::duration GetTransmissionTime(size_t bytes) const;

  const shape_t shape_;
  SteadyTime busy_until_{};
  std::deque<run_t> runs_;  // oldest first, none empty
};

}  // namespace vantrel
