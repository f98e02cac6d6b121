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

struct Case {
  int version;
  std::string bytes;
  std::vector<std::string> events;
};

std::vector<std::string> Feed(const Case& c, size_t step) {
  const LogCapture silence;
  std::unique_ptr<LinkProtocol> protocol = std::make_unique<ProtocolV2>("b");
  if (c.version != 20) protocol = std::make_unique<ProtocolV1>(c.version);
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

TEST(LinkProtocolTest, ReadsWholeAndByteByByte) {
  const std::string start = Frame(2, "ca0c 04 0801 1200");
  const std::string ack = "reply " + Hex(Frame(3, "d20c 05 0801 120162"));
  const std::string damaged = RawFrame(Bytes("0808 1001"), "hello", 5);
  const Case cases[] = {
      {20,
       start + Frame(5, "e20c 0f 0803 1208 0a04c6336450 1050 188b4f") +
           Frame(8, "fa0c 02 0803", "hello") + damaged +
           Frame(7, "f20c 02 0803") + Frame(4, "da0c 02 0801") +
           Frame(10, "8a0d 15 0a09 0a04c0a8a7ef 10b424 1208 0a04c6336450 1050",
                 "hello") +
           Frame(13, "a20d 0c 0a0a 088b4f 1205 636f6d2e61") + Frame(15, ""),
       {ack, "connect #3 uid 10123 198.51.100.80:80", "data #3 68656c6c6f",
        "close #3", "ready 'protocol 20, device build \"\"'",
        "udp 192.168.167.239:4660 198.51.100.80:80 68656c6c6f",
        "package uid 10123 'com.a'", "unexpected 'message type 15'"}},
      // A port above 65535.
      {20, start + Frame(5, "e20c 06 1204 10808004"), {ack, "connect"}},
      {20,
       start + "XXXXXXXX" + start,
       {ack, "fatal 'bad frame magic' " +
                 Hex(Frame(1, "c20c 11 0a0f" + Hex("bad frame magic")))}},
      {1,
       Bytes("01 00000003 c6336450 0050 278b  0a 278b 0005 636f6d2e61"
             "03 00000003 0005 68656c6c6f  03 00000004 0000  02 00000003"
             "04 c6336450 0050 0002 6869  05 01020304  06 00000003"
             "0a ffff 0000"),
       {"ready 'protocol 1'", "connect #3 uid 10123 198.51.100.80:80",
        "package uid 10123 'com.a'", "data #3 68656c6c6f", "data #4",
        "close #3", "udp 198.51.100.80:80 6869", "reply 0501020304",
        "unexpected 'message type 6'", "package"}},
      {5,
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
      {5, Bytes("02 00000003"), {"fatal 'message type 2 before handshake'"}},
      {5,
       Bytes("10 00000004 0000"),
       {"fatal 'unsupported handshake version 4' 11000000050000"}},
  };
  for (const Case& c : cases) {
    EXPECT_THAT(Feed(c, c.bytes.size()), ElementsAreArray(c.events));
    EXPECT_THAT(Feed(c, 1), ElementsAreArray(c.events));
  }
}

}  // namespace
}  // namespace vantrel
