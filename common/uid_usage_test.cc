#include "common/uid_usage.h"

#include <gtest/gtest.h>

namespace vantrel {
namespace {

TEST(UidUsageTest, OnlyAmountsMakeEntries) {
  UidUsage usage;
  std::stringstream dump;
  usage.AddRxBytes(1000, 0);
  usage.AddRxAndTxBytes(1000, 0, 0);
  EXPECT_TRUE(usage.Empty());
  usage.AddRxBytes(1000, 10);
  usage.AddTxBytes(1000, 5);
  usage.Dump(dump);
  usage.AddRxAndTxBytes(1000, 0xFFFFFFFF, 1);  // wraps
  usage.Dump(dump);
  usage.Clear();
  usage.Dump(dump);
  usage.AddTxBytes(4294967295, 3);
  usage.Dump(dump);
  EXPECT_EQ(
      "UID Usage:\n   1000 RX: 10 TX: 5\n"
      "UID Usage:\n   1000 RX: 9 TX: 6\n"
      "UID Usage:\n"
      "UID Usage:\n 4294967295 RX: 0 TX: 3\n",
      dump.str());
}

}  // namespace
}  // namespace vantrel
