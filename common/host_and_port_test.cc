#include "common/host_and_port.h"

#include <gtest/gtest.h>

#include "common/hex_testing.h"
#include "common/interception.h"

namespace vantrel {
namespace {

TEST(HostAndPortTest, BytesTextAndHash) {
  const struct {
    const char* bytes;
    uint16_t port;
    uint32_t hash;
    const char* text;
  } cases[] = {
      {"7F000001", 53, 520097686, "127.0.0.1:53"},
      {"FFFFFFFF", 65535, 65504, "255.255.255.255:65535"},
      {"20010DB8000000000000000000000001", 443, 0x6893249B, "2001:db8::1:443"},
      {"", 0, 0, ":0"},
  };
  for (const auto& c : cases) {
    const HostAndPort endpoint = Endpoint(c.bytes, c.port);
    EXPECT_EQ(Bytes(c.bytes), endpoint.host.ToNetworkBytes());
    EXPECT_EQ(c.hash, std::hash<HostAndPort>()(endpoint)) << c.text;
    EXPECT_EQ(c.text, endpoint.ToString());
  }
  EXPECT_EQ(":80", Endpoint("7F00000100", 80).ToString());

  // 31 * 520097686 + 7, less three times 2^32; and the other way round.
  const std::hash<std::pair<HostAndPort, HostAndPort>> flow_hash;
  const HostAndPort a = Endpoint("7F000001", 53), b = Endpoint("", 7);
  EXPECT_EQ(3238126385u, flow_hash({a, b}));
  EXPECT_EQ(520097903u, flow_hash({b, a}));
}

TEST(HostAndPortTest, Equality) {
  const HostAndPort v4 = Endpoint("C0000201", 80);
  const HostAndPort v6 = Endpoint("20010DB8000000000000000000000001", 80);
  EXPECT_TRUE(v4 == Endpoint("C0000201", 80));
  EXPECT_TRUE(Endpoint("", 80) == Endpoint("", 80));
  const std::pair<HostAndPort, HostAndPort> different[] = {
      {v4, Endpoint("C0000201", 81)},
      {v4, Endpoint("C0000202", 80)},
      {v6, Endpoint("20010DB8000000000000000000000002", 80)},
      {v4, Endpoint("00000000000000000000FFFFC0000201", 80)},
      {Endpoint("", 80), Endpoint("", 81)},
      {Endpoint("", 80), Endpoint("00000000", 80)},
  };
  for (const auto& [left, right] : different) {
    EXPECT_TRUE(right != left) << left << " " << right;
  }
}

TEST(InterceptionTest, BothFormsOfTheApplicationsAddressAreOne) {
  EXPECT_EQ(
      kApplicationAddressText,
      IpAddress::FromIPv4NetworkBytes(htonl(kApplicationAddress)).ToString());
}

}  // namespace
}  // namespace vantrel
