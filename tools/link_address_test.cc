#include "tools/link_address.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace vantrel {
namespace {

TEST(LinkAddress, TakesColonsWithinAddresses) {
  std::string reason;
  EXPECT_EQ("2001:db8::1",
            ParseLinkAddress("tcp:[2001:db8::1]:2000", &reason)->host);
  const auto rfcomm = ParseLinkAddress("rfcomm:0A:1b:2C:3D:4E:fF/30", &reason);
  EXPECT_EQ((std::array<uint8_t, 6>{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0xFF}),
            rfcomm->bluetooth);
  EXPECT_EQ(30, rfcomm->channel);
}

TEST(LinkAddress, RefusesEverythingElseWithAReason) {
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {"", {"", "unix", "unix:", "UNIX:/a", "/run/link"}},
      {"unix:", {std::string(108, 'a')}},
      {"tcp:",
       {"2000", ":2000", "host:", "host:0", "host:65536", "host:20x",
        "2001:db8::1:2000"}},
      {"rfcomm:",
       {"0A:1B:2C:3D:4E:5F", "0A:1B:2C:3D:4E:5F/0", "0A:1B:2C:3D:4E:5F/31",
        "0A:1B:2C:3D:4E/3", "0A-1B-2C-3D-4E-5F/3", "0A:1B:2C:3D:4E:5G/3"}},
      {"fd:", {"", "-1", "3 "}},
  };
  for (const auto& [kind, addresses] : cases) {
    for (const std::string& address : addresses) {
      std::string reason;
      EXPECT_FALSE(ParseLinkAddress(kind + address, &reason)) << address;
      EXPECT_NE("", reason) << address;
    }
  }
}

}  // namespace
}  // namespace vantrel
