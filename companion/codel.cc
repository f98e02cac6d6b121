#include "companion/codel.h"

#include <algorithm>
#include <cmath>

namespace vantrel {
namespace {

// After a longer time without drops the pauses begin at their longest again.
constexpr auto kMemory = 16 * Codel::kInterval;

}  // namespace

bool Codel::ShouldDrop(SteadyTime::duration sojourn, size_t bytes,
                       size_t bytes_behind, SteadyTime now) {
  const bool is_late =
      sojourn >= kTarget && bytes_behind > std::max(bytes, kMinQueueBytes);
  if (!IsStanding(is_late, now)) {
    is_dropping_ = false;
    return false;
  }
  if (!is_dropping_) {
    BeginDropping(now);
    return true;
  }
  if (now < next_drop_) return false;
  ++count_;
  next_drop_ += GetPause();
  return true;
}

bool Codel::IsStanding(bool is_late, SteadyTime now) {
  if (!is_late) {
    stands_at_.reset();
    return false;
  }
  if (!stands_at_) stands_at_ = now + kInterval;
  return now >= *stands_at_;
}

// Soon after the last drop the rate that it took to slow the sender down is
// still known.
void Codel::BeginDropping(SteadyTime now) {
  const uint32_t drops = count_ - first_count_;
  count_ = drops > 1 && now - next_drop_ < kMemory ? drops : 1;
  first_count_ = count_;
  next_drop_ = now + GetPause();
  is_dropping_ = true;
}

SteadyTime::duration Codel::GetPause() const {
  return std::chrono::duration_cast<SteadyTime::duration>(
      std::chrono::duration<double>(kInterval) /
      std::sqrt(static_cast<double>(count_)));
}

}  // namespace vantrel
