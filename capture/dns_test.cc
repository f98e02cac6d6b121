#include "capture/dns.h"

#include <gmock/gmock.h>

#include <vector>

#include "common/hex_testing.h"
#include "platform/linux/log_capture.h"

namespace vantrel {
namespace {

using ::testing::IsEmpty;

const std::string kIn = "0001 0001";  // type A, class IN
const std::string kQuestion =
    "03 777777 07 6578616D706C65 03 636F6D 00" + kIn;    // www.example.com
const std::string kPointer = "C00C" + kIn + "0000003C";  // to it, and a TTL
const std::string kAddress = kPointer + "0004 C6336407";

const HostAndPort kServer = Endpoint("C6336435", 53);

struct dns_case_t {
  const char* header;  // flags, question count, answer count
  std::string rest;
  std::vector<std::string> lines;  // without the component and id
};

void Check(void (*log_packet)(const HostAndPort&, const std::string&),
           const std::vector<dns_case_t>& cases) {
  LogCapture log;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.header + (" " + c.rest));
    std::vector<std::string> lines = c.lines;
    for (std::string& line : lines) line.insert(3, "[D:0a1b] ");
    const std::string packet =
        Bytes("0A1B" + std::string(c.header) + "00000000" + c.rest);
    log_packet(kServer, packet);
    EXPECT_EQ(lines, log.Take());
    log_packet(Endpoint("C6336435", 5353), packet);
    log_packet(kServer, packet.substr(0, 11));
    EXPECT_THAT(log.Take(), IsEmpty());
  }
}

TEST(DnsTest, Requests) {
  const std::string a = "01 61 00" + kIn;
  const dns_case_t cases[] = {
      {"0100 0002 0000",
       kQuestion + a,
       {"D: Look up www.example.com.", "D: Look up a."}},
      {"0100 FFFF 0000", a, {"D: Look up a."}},
      {"0100 0001 0000", a + kQuestion, {"D: Look up a."}},
      {"0100 0001 0000", "00" + kIn, {"D: Look up ."}},
      {"0100 0001 0000",
       "40" + std::string(128, '6') + "00" + kIn,
       {"D: Look up " + std::string(64, 'f') + "."}},
      {"0100 0001 0000", "3F 6162", {"D: Look up ab."}},
      {"8100 0001 0000", a, {}},
      {"0300 0001 0000", a, {"W: Truncated request packet."}},
      {"0900 0001 0000", a, {"W: Unexpected query opcode."}},
  };
  Check(Dns::LogRequest, {std::begin(cases), std::end(cases)});
}

TEST(DnsTest, Responses) {
  const std::string resolved = "D: Resolved www.example.com to 198.51.100.7.";
  const std::string invalid = "E: Received response with invalid length.";
  const dns_case_t cases[] = {
      {"8180 0001 0001", kQuestion + kAddress + "00", {resolved}},
      // An address that ends the packet, on purpose; a cut record.
      {"8180 0001 0001", kQuestion + kAddress, {invalid}},
      {"8180 0001 0001", kQuestion + kPointer + "00", {invalid}},
      // An alias, then two addresses.
      {"8180 0001 0003",
       kQuestion + kPointer + "0002 C00C" + kAddress + kAddress,
       {resolved, invalid}},
      // Four bytes of text.
      {"8180 0001 0001",
       kQuestion + "C00C 0010 0001 00000000 0004 036162FF 00",
       {"D: Resolved www.example.com to 3.97.98.255."}},
      {"0180 0001 0001", kQuestion + kAddress + "00", {}},
      {"8380 0001 0001", kQuestion, {"W: Truncated response packet."}},
      {"8181 0000 0000",
       "",
       {"E: The name server was unable to interpret the query."}},
      {"81F2 0000 0000", "", {"E: The domain name does not exist."}},
      {"8184 0000 0000",
       "",
       {"E: The name server does not support the requested kind of query."}},
      {"8185 0000 0000",
       "",
       {"E: The name server refuses to perform the specified operation."}},
      {"8183 0000 0000", "", {}},
      {"8186 0001 0001", kQuestion + kAddress + "00", {}},
  };
  Check(Dns::LogResponse, {std::begin(cases), std::end(cases)});
}

// Nothing is read past the end and nothing loops: the sanitizers look on.
TEST(DnsTest, MalformedPacketsAreSurvived) {
  LogCapture log;
  for (const std::string flags : {"0000", "8000"}) {
    const auto log_packet =
        flags == "0000" ? Dns::LogRequest : Dns::LogResponse;
    const std::string header = "0000" + flags + "FFFF FFFF 00000000";
    const std::string whole = Bytes(header + kQuestion + kAddress + "00");
    for (size_t size = 0; size < whole.size(); ++size) {
      log_packet(kServer, whole.substr(0, size));
    }
    for (const char* loop : {"C00C", "01 61 C00C", "C00E C00C", "01 61 C0"}) {
      log_packet(kServer, Bytes(header + loop));
    }
  }
}

// Whatever a packet holds, its lines are bounded, and the rest is counted.
TEST(DnsTest, OnePacketLogsSoMuchAndNoMore) {
  LogCapture log;
  const std::string header = "0A1B 0100 FFFF 0000 00000000";
  std::string many = Bytes(header), endless = Bytes(header);
  for (int i = 0; i < 100; ++i) many += Bytes("01 61 00" + kIn);
  Dns::LogRequest(kServer, many);
  std::vector<std::string> lines = log.Take();
  ASSERT_EQ(65u, lines.size());
  EXPECT_EQ("D: [D:0a1b] Look up a.", lines[63]);
  EXPECT_EQ("W: [D:0a1b] 36 more lines of this packet are left out.",
            lines[64]);

  // Labels that fill half the packet, and pointers to them again and again.
  for (int i = 0; i < 150; ++i) endless += '\xBF' + std::string(191, 'a');
  for (int i = 0; i < 5000; ++i) endless += Bytes("C00C" + kIn);
  Dns::LogRequest(kServer, endless);
  lines = log.Take();
  size_t bytes = 0;
  for (const std::string& line : lines) bytes += line.size();
  EXPECT_GE(16384u + 100, bytes);
  EXPECT_LE(8192u, bytes);
  EXPECT_THAT(lines.back(), ::testing::HasSubstr("more lines of this packet"));
}

}  // namespace
}  // namespace vantrel
