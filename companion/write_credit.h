#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <chrono>

#include "support/steady_time.h"

namespace vantrel {

// The device's credit of one stream: the writes that it may have under way.
// Each of them is unused since the stream began; or it has come and is not
// acknowledged; or it was acknowledged and may be used again. They are used in
// the order in which they were acknowledged.
//
// There is one of these for each of many thousand streams, so it is small.
class WriteCredit {
 public:
  static constexpr size_t kWrites = 8;

  size_t GetUnusedCount() const { return kWrites - given_ - writes_; }
  // Bytes of the credit that was given again and not used: as many as the
  // writes had by which it was earned. Less what was forgotten.
  size_t GetBytesGiven() const {
    size_t sum = 0;
    for (size_t i = 0; i < given_; ++i) sum += Get(i).bytes;
    return sum;
  }
  bool HasGiven() const { return given_ > 0; }
  // Forgets the bytes of what was given at least |age| before |now|. How many
  // those were.
  size_t Forget(SteadyTime::duration age, SteadyTime now) {
    size_t sum = 0;
    for (size_t i = 0; i < given_ && GetAge(i, now) >= age; ++i) {
      sum += Get(i).bytes;
      Get(i).bytes = 0;
    }
    return sum;
  }

  struct used_t {
    size_t bytes;              // of GetBytesGiven()
    SteadyTime::duration age;  // since it was given
  };
  // The oldest credit that was given again, if HasGiven(), is used up.
  used_t UseGiven(SteadyTime now) {
    assert(given_ > 0);
    const used_t used = {Get(0).bytes, GetAge(0, now)};
    begin_ = (begin_ + 1) % kWrites;
    --given_;
    return used;
  }
  // A write of |bytes| has come, for which there was credit.
  void AddWrite(size_t bytes) {
    assert(given_ + writes_ < kWrites);
    Get(given_ + writes_).bytes = static_cast<uint32_t>(bytes);
    ++writes_;
  }
  // Those that are not acknowledged.
  size_t GetWriteCount() const { return writes_; }
  // Of the oldest of them; there is one.
  size_t GetWriteBytes() const {
    assert(writes_ > 0);
    return Get(given_).bytes;
  }
  // Of all of them.
  size_t GetBytesOfWrites() const {
    size_t sum = 0;
    for (size_t i = 0; i < writes_; ++i) sum += Get(given_ + i).bytes;
    return sum;
  }
  // The oldest write is acknowledged: its credit is given again.
  void Give(SteadyTime now) {
    assert(writes_ > 0);
    Get(given_).given_at = ToMicroseconds(now);
    ++given_;
    --writes_;
  }

 private:
  struct write_t {
    uint32_t bytes;
    uint32_t given_at;
  };

  // Counts anew after 71 minutes. What is older seems younger once; it then
  // counts as an application that uploads, for some moments.
  static uint32_t ToMicroseconds(SteadyTime time) {
    return static_cast<uint32_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(
            time.time_since_epoch())
            .count());
  }
  std::chrono::microseconds GetAge(size_t index, SteadyTime now) const {
    return std::chrono::microseconds(ToMicroseconds(now) - Get(index).given_at);
  }
  // |index| counts those that were given, then the writes, the oldest first.
  write_t& Get(size_t index) { return slots_[(begin_ + index) % kWrites]; }
  const write_t& Get(size_t index) const {
    return slots_[(begin_ + index) % kWrites];
  }

  std::array<write_t, kWrites> slots_;
  uint8_t begin_ = 0;
  uint8_t given_ = 0;
  uint8_t writes_ = 0;
};

}  // namespace vantrel
