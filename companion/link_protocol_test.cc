#include "companion/link_protocol.h"

#include <gmock/gmock.h>

#include <memory>
#include <vector>

#include "companion/protocol_v1.h"
#include "companion/protocol_v2.h"
#include "link_v2/frame_testing.h"
#include "platform/linux/log_capture.h"

namespace vantrel {
namespace {

using ::testing::ElementsAreArray;

const char* Name(LinkEvent::Type type) {
  constexpr const char* kNames[] = {"reply",      "ready", "connect", "data",
                                    "close",      "udp",   "package", "notice",
                                    "unexpected", "fatal"};
  return kNames[static_cast<int>(type)];
}

std::string Hex(const std::string& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const unsigned char byte : bytes) {
    hex += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return hex;
}

// Only the fields that are set.
std::string Describe(const LinkEvent& event) {
  std::string line = Name(event.type);
  if (event.stream_id != 0) line += " #" + std::to_string(event.stream_id);
  if (event.uid != LinkEvent::kUnknownUid) {
    line += " uid " + std::to_string(event.uid);
  }
  if (event.local.port != 0) line += " " + event.local.ToString();
  if (event.remote.port != 0) line += " " + event.remote.ToString();
  if (!event.text.empty()) line += " '" + event.text + "'";
  if (!event.bytes.empty()) line += " " + Hex(event.bytes);
  return line;
}

std::unique_ptr<LinkProtocol> Make(int version) {
  if (version == 20) return std::make_unique<ProtocolV2>("b");
  return std::make_unique<ProtocolV1>(version);
}

struct Case {
  const char* name;
  int version;
  std::string bytes;
  std::vector<std::string> events;
};

std::vector<std::string> Feed(const Case& c, size_t step) {
  const LogCapture silence;
  const std::unique_ptr<LinkProtocol> protocol = Make(c.version);
  std::vector<std::string> events;
  LinkEvent event;
  while (protocol->GetNextEvent(&event)) events.push_back(Describe(event));
  for (size_t at = 0; at < c.bytes.size(); at += step) {
    const std::string piece = c.bytes.substr(at, step);
    protocol->Feed(piece.data(), piece.size());
    while (protocol->GetNextEvent(&event)) events.push_back(Describe(event));
  }
  return events;
}

const char kLocalV1[] = "c0a8a7ef 1234";
const char kRemoteV1[] = "c6336450 0050";

std::string Start() { return Frame(2, "ca0c 04 0801 1200"); }

std::vector<Case> Cases() {
  const std::string ack = "reply " + Hex(Frame(3, "d20c 05 0801 120162"));
  return {
      {"v2 streams",
       20,
       Start() + Frame(5, "e20c 0f 0803 1208 0a04c6336450 1050 188b4f") +
           Frame(8, "fa0c 02 0803", "hello") + Frame(7, "f20c 02 0803"),
       {ack, "connect #3 uid 10123 198.51.100.80:80", "data #3 68656c6c6f",
        "close #3"}},
      {"v2 others",
       20,
       Start() + Frame(4, "da0c 02 0801") +
           Frame(10, "8a0d 15 0a09 0a04c0a8a7ef 10b424 1208 0a04c6336450 1050",
                 "hello") +
           Frame(13, "a20d 0c 0a0a 088b4f 1205 636f6d2e61") + Frame(15, ""),
       {ack, "ready 'protocol 20, device build \"\"'",
        "udp 192.168.167.239:4660 198.51.100.80:80 68656c6c6f",
        "package uid 10123 'com.a'", "unexpected 'message type 15'"}},
      {"v2 damaged frame is skipped",
       20,
       Start() + RawFrame(Bytes("0808 1001 fa0c 02 0803"), "hello", 5) +
           Frame(7, "f20c 02 0803") + Frame(7, "f20c 02 0804"),
       {ack, "close #3", "close #4"}},
      {"v2 wrong port",
       20,
       Start() + Frame(5, "e20c 06 1204 10808004 "),
       {ack, "connect"}},
      {"v2 no handshake",
       20,
       Frame(7, "f20c 02 0803") + Start(),
       {"fatal 'message type 7 before handshake' " +
        Hex(Frame(1,
                  "c20c 21 0a1f" + Hex("message type 7 before handshake")))}},
      {"v2 version",
       20,
       Frame(2, "ca0c 02 0802"),
       {"fatal 'unsupported handshake version 2' " +
        Hex(Frame(3, "d20c 28 08ffff03 120162 1a1f" +
                         Hex("unsupported handshake version 2")))}},
      {"v2 magic",
       20,
       Start() + "XXXXXXXX" + Start(),
       {ack, "fatal 'bad frame magic' " +
                 Hex(Frame(1, "c20c 11 0a0f" + Hex("bad frame magic")))}},
      {"version 1",
       1,
       Bytes("01 00000003 c6336450 0050 278b  0a 278b 0005 636f6d2e61"
             "03 00000003 0005 68656c6c6f  03 00000004 0000  02 00000003"
             "04 c6336450 0050 0002 6869  05 01020304  06 00000003"
             "0a ffff 0000"),
       {"ready 'protocol 1'", "connect #3 uid 10123 198.51.100.80:80",
        "package uid 10123 'com.a'", "data #3 68656c6c6f", "data #4",
        "close #3", "udp 198.51.100.80:80 6869", "reply 0501020304",
        "unexpected 'message type 6'", "package"}},
      {"version 5",
       5,
       Bytes("10 00000005 0000  02 00000003  12 00000005 0000"
             "0e c0a8a7ef 1234 c6336450 0050 8b27 0002 6869"
             "0c 00000001 00000003  0d 00000001 0002 6161"
             "0d 00000001 0001 61  0d 00000001 0001 61"
             "13 02 00000003"),
       {"reply 11000000050000", "close #3", "ready 'protocol 5'",
        "udp 192.168.167.239:4660 198.51.100.80:80 6869",
        "notice 'push 1: expecting 3 bytes'",
        "notice 'push 1: received 3 bytes'", "unexpected 'message type 13'",
        "fatal 'unknown message type 19'"}},
      {"version 5 without handshake",
       5,
       Bytes("02 00000003"),
       {"fatal 'message type 2 before handshake'"}},
      {"version 5 met by another",
       5,
       Bytes("10 00000004 0000"),
       {"fatal 'unsupported handshake version 4' 11000000050000"}},
      {"version 1 met by 5",
       1,
       Bytes("10 00000005 0000"),
       {"ready 'protocol 1'",
        "fatal 'the daemon was started with version 5' 11000000010000"}},
  };
}

TEST(LinkProtocolTest, ReadsWholeAndByteByByte) {
  for (const Case& c : Cases()) {
    EXPECT_THAT(Feed(c, c.bytes.size()), ElementsAreArray(c.events)) << c.name;
    EXPECT_THAT(Feed(c, 1), ElementsAreArray(c.events)) << c.name;
  }
}

TEST(LinkProtocolTest, WritesLiteralBytes) {
  const HostAndPort local(IpAddress::FromNetworkBytes(Bytes("c0a8a7ef")), 4660);
  const HostAndPort remote(IpAddress::FromNetworkBytes(Bytes("c6336450")), 80);
  const std::string ends = "0a09 0a04c0a8a7ef 10b424 1208 0a04c6336450 1050";
  const ProtocolV2 v2("b");
  EXPECT_EQ(v2.EncodeData(3, "hello"), Frame(8, "fa0c 02 0803", "hello"));
  EXPECT_EQ(v2.EncodeClose(3), Frame(7, "f20c 02 0803"));
  EXPECT_EQ(v2.EncodeWriteAck(3), Frame(9, "820d 02 0803"));
  EXPECT_EQ(v2.EncodeDatagram(local, remote, "hi"),
            Frame(10, "8a0d 15" + ends, "hi"));
  EXPECT_EQ(v2.EncodeUdpFailure(local, remote, "hi"),
            Frame(11, "920d 15" + ends, "hi"));
  EXPECT_EQ(v2.EncodeNetworkState(7, true), Frame(14, "aa0d 02 0807"));
  EXPECT_EQ(v2.EncodeTeardown("bye"), Frame(1, "c20c 05 0a03 627965"));

  const ProtocolV1 v1(5);
  const std::string v1_local = Bytes(kLocalV1), v1_remote = Bytes(kRemoteV1);
  EXPECT_EQ(v1.EncodeData(3, "hi"), Bytes("03 00000003 0002 6869"));
  EXPECT_EQ(v1.EncodeClose(3), Bytes("02 00000003"));
  EXPECT_EQ(v1.EncodeWriteAck(3), Bytes("06 00000003"));
  EXPECT_EQ(v1.EncodeDatagram(local, remote, "hi"),
            "\x0e" + v1_local + v1_remote + Bytes("0000 0002 6869"));
  EXPECT_EQ(v1.EncodeUdpFailure(local, remote, "hi"),
            "\x0f" + v1_local + v1_remote + Bytes("0002 6869"));
  EXPECT_EQ(v1.EncodeDatagram(HostAndPort(), remote, "hi"),
            "\x04" + v1_remote + Bytes("0002 6869"));
  EXPECT_EQ(v1.EncodeUdpFailure(HostAndPort(), remote, "hi"),
            "\x07" + v1_remote + Bytes("0002 6869"));
  EXPECT_EQ(v1.EncodeNetworkState(-3, true), Bytes("0b fffffffd 01"));
  EXPECT_EQ(v1.EncodeTeardown("bye"), "");
}

TEST(LinkProtocolTest, PullsTakeTurns) {
  ProtocolV1 v1(1);
  const std::string requests =
      Bytes("08 00000007 00004001  08 00000008 00000000  08 00000009 00000001");
  v1.Feed(requests.data(), requests.size());
  LinkEvent event;
  while (v1.GetNextEvent(&event)) {
  }
  std::vector<std::string> headers;
  for (std::string m; v1.GetNextBulk(&m);) {
    headers.push_back(Hex(m.substr(0, 7)));
  }
  EXPECT_THAT(headers, ElementsAreArray({"09000000074000", "09000000080000",
                                         "09000000090001", "09000000070001"}));
}

}  // namespace
}  // namespace vantrel
