#include "support/pace_meter.h"

#include <gtest/gtest.h>

namespace vantrel {
namespace {

using std::chrono::milliseconds;

// What a link of 250,000 and later 25,000 bytes/s takes, seen every 10 ms.
TEST(PaceMeterTest, FollowsTheLinkAndBoundsInTime) {
  PaceMeter meter;
  SteadyTime now;
  const auto run = [&](int milliseconds_count, size_t bytes_per_10_ms) {
    for (int i = 0; i < milliseconds_count; i += 10) {
      meter.OnBlocked(now);
      meter.OnWritten(bytes_per_10_ms, now);
      now += milliseconds(10);
    }
    meter.OnBlocked(now);
  };
  run(1000, 2500);
  EXPECT_NEAR(250e3, meter.GetPace(), 5e3);
  const size_t hold = meter.GetBytesIn(milliseconds(40), 1024, 65536);
  EXPECT_NEAR(10000, static_cast<double>(hold), 200);
  run(1000, 250);
  EXPECT_NEAR(25e3, meter.GetPace(), 5e3);
  EXPECT_EQ(2048u, meter.GetBytesIn(milliseconds(40), 2048, 65536));
  // A link that had little to carry is not a slow one, and one that was never
  // full is as fast as what it has carried.
  for (int i = 0; i < 100; ++i) {
    if (i < 50) meter.OnIdle();
    meter.OnWritten(i < 50 ? 10 : 100000, now);
    now += milliseconds(10);
  }
  EXPECT_NEAR(10e6, meter.GetPace(), 1e6);
  EXPECT_EQ(65536u, meter.GetBytesIn(milliseconds(40), 2048, 65536));
  // Full and idle in turns, as with a small queue before a fast reader: the
  // first guess must not stay, for it made the queue so small.
  PaceMeter turns;
  for (int i = 0; i < 100; ++i) {
    turns.OnBlocked(now);
    turns.OnWritten(100000, now);
    turns.OnIdle();
    now += milliseconds(10);
  }
  EXPECT_NEAR(10e6, turns.GetPace(), 1e6);
}

}  // namespace
}  // namespace vantrel
