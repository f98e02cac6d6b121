#include "tools/launch/pace_meter.h"

#include <algorithm>

namespace vantrel {
namespace {

// A socket is not equally full each time, and its peer may take much at once;
// over a shorter stretch that would weigh as much as what the link carried.
constexpr std::chrono::milliseconds kStretch{40};
// What the socket and its peer take at once must not count as carried.
constexpr std::chrono::milliseconds kIdleStretch{200};

// The share of the newest stretch in the result.
constexpr double kNewestShare = 0.25;

}  // namespace

void PaceMeter::OnBlocked(SteadyTime now) {
  if (!began_) return Begin(now, true);
  const std::chrono::duration<double> seconds = now - *began_;
  if (seconds < (was_full_ ? kStretch : kIdleStretch)) return;
  const double pace = static_cast<double>(written_bytes_) / seconds.count();
  if (!was_full_) {
    pace_ = std::max(pace_, pace);
  } else {
    pace_ = is_measured_ ? pace_ + kNewestShare * (pace - pace_) : pace;
    is_measured_ = true;
  }
  Begin(now, true);
}

void PaceMeter::OnIdle(SteadyTime now) {
  was_full_ = false;
  if (!began_) return Begin(now, false);
  const std::chrono::duration<double> seconds = now - *began_;
  if (seconds < kIdleStretch) return;
  pace_ =
      std::max(pace_, static_cast<double>(written_bytes_) / seconds.count());
  Begin(now, false);
}

size_t PaceMeter::GetBytesIn(std::chrono::milliseconds time) const {
  return static_cast<size_t>(pace_ *
                             std::chrono::duration<double>(time).count());
}

void PaceMeter::Begin(SteadyTime now, bool is_full) {
  began_ = now;
  was_full_ = is_full;
  written_bytes_ = 0;
}

}  // namespace vantrel
