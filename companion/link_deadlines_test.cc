#include "companion/link_deadlines.h"

#include <gtest/gtest.h>

namespace vantrel {
namespace {

using std::chrono::seconds;

constexpr SteadyTime kStart{};

std::string Excess(const LinkDeadlines& deadlines, int second) {
  const char* const excess = deadlines.GetExcess(kStart + seconds(second));
  return excess == nullptr ? "" : excess;
}

TEST(LinkDeadlinesTest, EachTimeHasItsEnd) {
  LinkDeadlines silent(kStart, false);
  EXPECT_EQ("", Excess(silent, 29));
  EXPECT_EQ("the device said nothing for 30 s", Excess(silent, 30));
  EXPECT_FALSE(silent.IsSilent(kStart + seconds(9)));
  EXPECT_TRUE(silent.IsSilent(kStart + seconds(10)));

  LinkDeadlines half_way(kStart, false);
  half_way.OnReceived(kStart + seconds(20));
  EXPECT_EQ("no whole handshake within 30 s", Excess(half_way, 30));
  EXPECT_FALSE(half_way.IsSilent(kStart + seconds(10)));

  LinkDeadlines unknown(kStart, true);
  EXPECT_EQ("", Excess(unknown, 100000));
  EXPECT_TRUE(unknown.IsSilent(kStart + seconds(10)));
  unknown.OnReceived(kStart + seconds(50));
  unknown.OnReceived(kStart + seconds(60));
  EXPECT_EQ("", Excess(unknown, 79));
  EXPECT_EQ("no whole handshake within 30 s", Excess(unknown, 80));

  LinkDeadlines ready(kStart, false);
  ready.OnReady();
  EXPECT_EQ("", Excess(ready, 100000));  // idle is no fault
  ready.OnBlocked(kStart + seconds(100));
  ready.OnBlocked(kStart + seconds(120));
  EXPECT_EQ("", Excess(ready, 129));
  EXPECT_EQ("the device took nothing for 30 s", Excess(ready, 130));
  ready.OnWritten();
  EXPECT_EQ("", Excess(ready, 130));
  ready.OnBlocked(kStart + seconds(130));
  ready.OnClosing(kStart + seconds(131));
  EXPECT_EQ("", Excess(ready, 135));
  EXPECT_EQ("closed by the companion", Excess(ready, 136));
}

}  // namespace
}  // namespace vantrel
