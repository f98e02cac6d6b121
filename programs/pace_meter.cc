#include "programs/pace_meter.h"

#include <algorithm>

namespace vantrel {
namespace {

// A socket is not equally full each time; over a shorter stretch that would
// weigh as much as what the link carried.
constexpr std::chrono::milliseconds kMinStretch{50};
// What the socket and its peer take at once must not count as carried.
constexpr std::chrono::milliseconds kMinStretchOfLeast{200};
// The share of the newest stretch in the result.
constexpr double kNewestShare = 0.25;

}  // namespace

void PaceMeter::OnWritten(size_t bytes, SteadyTime now) {
  if (!began_) Begin(now, true);
  written_bytes_ += bytes;
  if (const auto least = GetPaceSince(now, kMinStretchOfLeast)) {
    pace_ = std::max(pace_, *least);
    Begin(now, true);
  }
}

void PaceMeter::OnBlocked(SteadyTime now) {
  if (!began_ || was_idle_) return Begin(now, false);
  const auto pace = GetPaceSince(now, kMinStretch);
  if (!pace) return;
  pace_ = is_measured_ ? pace_ + kNewestShare * (*pace - pace_) : *pace;
  is_measured_ = true;
  Begin(now, false);
}

void PaceMeter::Begin(SteadyTime now, bool is_idle) {
  began_ = now;
  was_idle_ = is_idle;
  written_bytes_ = 0;
}

std::optional<double> PaceMeter::GetPaceSince(
    SteadyTime now, std::chrono::milliseconds min) const {
  if (!began_ || now - *began_ < min) return std::nullopt;
  return static_cast<double>(written_bytes_) /
         std::chrono::duration<double>(now - *began_).count();
}

size_t PaceMeter::GetBytesIn(std::chrono::milliseconds time, size_t min,
                             size_t max) const {
  const double bytes = pace_ * std::chrono::duration<double>(time).count();
  return static_cast<size_t>(
      std::clamp(bytes, static_cast<double>(min), static_cast<double>(max)));
}

}  // namespace vantrel
