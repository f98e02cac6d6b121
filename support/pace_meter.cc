#include "support/pace_meter.h"

#include <algorithm>

namespace vantrel {
namespace {

// A socket is not equally full each time; over a shorter stretch that would
// weigh as much as what the link carried.
constexpr std::chrono::milliseconds kMinStretch{50};
// What the socket and its peer take at once must not count as carried: over
// this time it hardly weighs, and over a shorter one it is left out.
constexpr std::chrono::milliseconds kLongStretch{200};
constexpr std::chrono::milliseconds kShortStretch{20};
constexpr uint64_t kTakenAtOnce = 256 * 1024;
// The share of the newest stretch in the result.
constexpr double kNewestShare = 0.25;

double GetRate(uint64_t bytes, SteadyTime begin, SteadyTime end) {
  return static_cast<double>(bytes) /
         std::chrono::duration<double>(end - begin).count();
}

}  // namespace

void PaceMeter::OnWritten(size_t bytes, SteadyTime now) {
  if (blocked_) bytes_since_blocked_ += bytes;
  if (!began_) began_ = now;
  bytes_since_began_ += bytes;
  const auto elapsed = now - *began_;
  if (elapsed >= kLongStretch) {
    pace_ = std::max(pace_, GetRate(bytes_since_began_, *began_, now));
    began_ = now;
    bytes_since_began_ = 0;
  } else if (elapsed >= kShortStretch && bytes_since_began_ > kTakenAtOnce) {
    pace_ = std::max(pace_,
                     GetRate(bytes_since_began_ - kTakenAtOnce, *began_, now));
  }
}

void PaceMeter::OnBlocked(SteadyTime now) {
  if (blocked_ && now - *blocked_ < kMinStretch) return;
  if (blocked_) {
    const double pace = GetRate(bytes_since_blocked_, *blocked_, now);
    pace_ = is_measured_ ? pace_ + kNewestShare * (pace - pace_) : pace;
    is_measured_ = true;
  }
  blocked_ = now;
  bytes_since_blocked_ = 0;
}

size_t PaceMeter::GetBytesIn(std::chrono::milliseconds time, size_t min,
                             size_t max) const {
  const double bytes = pace_ * std::chrono::duration<double>(time).count();
  return static_cast<size_t>(
      std::clamp(bytes, static_cast<double>(min), static_cast<double>(max)));
}

}  // namespace vantrel
