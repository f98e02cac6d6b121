#include "companion/codel.h"

#include <gtest/gtest.h>

#include <vector>

namespace vantrel {
namespace {

using std::chrono::milliseconds;

// A queue from which one message is taken every millisecond.
class CodelTest : public ::testing::Test {
 protected:
  // At which milliseconds messages were dropped, until |end|.
  std::vector<int> GetDrops(int end, int sojourn, size_t bytes_behind,
                            size_t bytes = 1200) {
    std::vector<int> drops;
    for (; now_ < end; ++now_) {
      if (codel_.ShouldDrop(milliseconds(sojourn), bytes, bytes_behind,
                            SteadyTime(milliseconds(now_)))) {
        drops.push_back(now_);
      }
    }
    return drops;
  }

  Codel codel_;
  int now_ = 1000;
};

using Times = std::vector<int>;

TEST_F(CodelTest, DropsMoreAndMoreOftenWhileTheQueueStands) {
  // After an interval of 100 ms, then after 100 / sqrt(1), 100 / sqrt(2), ...
  EXPECT_EQ(Times({1100, 1200, 1271, 1329, 1379, 1424, 1464}),
            GetDrops(1500, 5, 10000));
  EXPECT_EQ(Times(), GetDrops(1510, 4, 10000));
  // It goes on where it was: 100 / sqrt(6). Much later it begins anew.
  EXPECT_EQ(Times({1610, 1651, 1689}), GetDrops(1700, 5, 10000));
  EXPECT_EQ(Times(), GetDrops(5000, 4, 10000));
  EXPECT_EQ(Times({5100, 5200}), GetDrops(5250, 5, 10000));
}

TEST_F(CodelTest, BearsBurstsAndWhatIsNoQueue) {
  for (int burst = 0; burst < 5; ++burst) {
    EXPECT_EQ(Times(), GetDrops(now_ + 99, 90, 100000));
    EXPECT_EQ(Times(), GetDrops(now_ + 1, 4, 100000));
  }
  EXPECT_EQ(Times(), GetDrops(now_ + 500, 90, 3000));
  EXPECT_EQ(Times(), GetDrops(now_ + 500, 90, 0));
  EXPECT_EQ(Times(), GetDrops(now_ + 500, 90, 16000, 16000));
  EXPECT_NE(Times(), GetDrops(now_ + 500, 90, 16001, 16000));
}

}  // namespace
}  // namespace vantrel
