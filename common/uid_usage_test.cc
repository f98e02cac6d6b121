#include "common/uid_usage.h"

#include <gtest/gtest.h>

namespace vantrel {
namespace {

std::string DumpOf(const UidUsage& usage) {
  std::stringstream out;
  usage.Dump(out);
  return out.str();
}

TEST(UidUsageTest, OnlyAmountsMakeEntries) {
  UidUsage usage;
  usage.AddRxBytes(1000, 0);
  usage.AddRxAndTxBytes(1000, 0, 0);
  EXPECT_TRUE(usage.Empty());
  EXPECT_EQ("UID Usage:\n", DumpOf(usage));

  usage.AddRxBytes(1000, 10);
  usage.AddTxBytes(1000, 5);
  EXPECT_EQ("UID Usage:\n   1000 RX: 10 TX: 5\n", DumpOf(usage));
  usage.AddRxAndTxBytes(1000, 0xFFFFFFFF, 1);  // wraps
  EXPECT_EQ("UID Usage:\n   1000 RX: 9 TX: 6\n", DumpOf(usage));

  usage.Clear();
  usage.AddTxBytes(4294967295, 3);
  EXPECT_EQ("UID Usage:\n 4294967295 RX: 0 TX: 3\n", DumpOf(usage));
  ASSERT_NE(usage.Begin(), usage.End());
  EXPECT_EQ(4294967295u, usage.Begin()->first);
  EXPECT_EQ(3u, usage.Begin()->second.tx_bytes);
}

}  // namespace
}  // namespace vantrel
