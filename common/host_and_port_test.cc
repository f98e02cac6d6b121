#include "common/host_and_port.h"

#include <gmock/gmock.h>
#include <string.h>

#include <sstream>

#include "common/hex_testing.h"
#include "platform/linux/log_capture.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;

TEST(HostAndPortTest, BytesTextAndHash) {
  const struct {
    const char* bytes;
    uint16_t port;
    int family;
    uint32_t address_hash;
    uint32_t hash;
    const char* text;
  } cases[] = {
      {"7F000001", 53, AF_INET, 0x0100007F, 520097686, "127.0.0.1:53"},
      {"FFFFFFFF", 65535, AF_INET, 0xFFFFFFFF, 65504, "255.255.255.255:65535"},
      {"20010DB8000000000000000000000001", 443, AF_INET6, 0xB90D0120,
       0x6893249B, "2001:db8::1:443"},
      {"01020304010203040102030401020304", 9, AF_INET6, 0, 9,
       "102:304:102:304:102:304:102:304:9"},
      {"", 0, 0, 0, 0, ":0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const HostAndPort endpoint = Endpoint(c.bytes, c.port);
    EXPECT_EQ(c.family, endpoint.host.GetFamily());
    EXPECT_EQ(Bytes(c.bytes), endpoint.host.ToNetworkBytes());
    EXPECT_EQ(c.address_hash, endpoint.host.GetHashCode());
    EXPECT_EQ(c.hash, std::hash<HostAndPort>()(endpoint));
    std::ostringstream out;
    out << endpoint;
    EXPECT_EQ(c.text, out.str());
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
    EXPECT_FALSE(left == right) << left << " " << right;
    EXPECT_TRUE(right != left) << left << " " << right;
  }
}

TEST(HostAndPortTest, SocketAddressesKeepNetworkOrder) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  memcpy(&address.sin_port, "\x00\x35", 2);
  memcpy(&address.sin_addr, "\xC6\x33\x64\x01", 4);
  const HostAndPort endpoint = HostAndPort::FromIPv4Addr(address);
  EXPECT_EQ("198.51.100.1:53", endpoint.ToString());
  const sockaddr_in back = endpoint.GetSockAddrV4();
  EXPECT_EQ(0, memcmp(&address, &back, sizeof(back)));

  LogCapture log;
  const sockaddr_in zero = {};
  const sockaddr_in none =
      Endpoint("20010DB8000000000000000000000001", 80).GetSockAddrV4();
  EXPECT_EQ(0, memcmp(&zero, &none, sizeof(none)));
  EXPECT_EQ(0u, IpAddress().GetAddrV4());
  EXPECT_THAT(
      log.Take(),
      ElementsAre("E: Attempt to obtain sockaddr_in from wrong addr family 10",
                  "E: Attempt to obtain in_addr from wrong addr family 0"));
}

}  // namespace
}  // namespace vantrel
