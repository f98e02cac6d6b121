#include "tools/link_address.h"

#include <gtest/gtest.h>

#include <string>

namespace vantrel {
namespace {

TEST(LinkAddress, TakesEveryKind) {
  std::string reason;
  EXPECT_EQ("/run/l:1", ParseLinkAddress("unix:/run/l:1", &reason)->path);
  const auto tcp = ParseLinkAddress("tcp:[2001:db8::1]:2000", &reason);
  EXPECT_EQ("2001:db8::1", tcp->host);
  EXPECT_EQ("2000", tcp->port);
  EXPECT_EQ("example.com",
            ParseLinkAddress("tcp:example.com:1", &reason)->host);
  const auto rfcomm = ParseLinkAddress("rfcomm:0A:1b:2C:3D:4E:fF/30", &reason);
  EXPECT_EQ((std::array<uint8_t, 6>{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0xFF}),
            rfcomm->bluetooth);
  EXPECT_EQ(30, rfcomm->channel);
  EXPECT_EQ(17, ParseLinkAddress("fd:17", &reason)->fd);
}

TEST(LinkAddress, RefusesEverythingElseWithAReason) {
  const std::string cases[] = {
      "",
      "unix",
      "unix:",
      "unix:" + std::string(108, 'a'),
      "UNIX:/a",
      "tcp:2000",
      "tcp::2000",
      "tcp:host:",
      "tcp:host:0",
      "tcp:host:65536",
      "tcp:host:20x",
      "tcp:2001:db8::1:2000",
      "rfcomm:0A:1B:2C:3D:4E:5F",
      "rfcomm:0A:1B:2C:3D:4E:5F/0",
      "rfcomm:0A:1B:2C:3D:4E:5F/31",
      "rfcomm:0A:1B:2C:3D:4E/3",
      "rfcomm:0A-1B-2C-3D-4E-5F/3",
      "rfcomm:0A:1B:2C:3D:4E:5G/3",
      "fd:",
      "fd:-1",
      "fd:3 ",
      "/run/link",
  };
  for (const std::string& text : cases) {
    std::string reason;
    EXPECT_FALSE(ParseLinkAddress(text, &reason)) << text;
    EXPECT_NE("", reason) << text;
  }
}

}  // namespace
}  // namespace vantrel
