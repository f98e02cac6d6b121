#include "companion/link_protocol.h"

#include <gmock/gmock.h>

#include <memory>
#include <vector>

#include "companion/protocol_auto.h"
#include "companion/protocol_v1.h"
#include "companion/protocol_v2.h"
#include "link_v2/frame_testing.h"
#include "platform/linux/log_capture.h"

namespace vantrel {
namespace {

using ::testing::ElementsAreArray;

std::string Hex(const std::string& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (const unsigned char byte : bytes) {
    hex += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return hex;
}

// Every call as one line.
class Recorder : public DeviceMessages {
 public:
  void OnReady(const std::string& text) override {
    Add("ready '" + text + "'");
  }
  void OnConnect(uint32_t id, const HostAndPort& remote,
                 uint32_t uid) override {
    Add("connect #" + std::to_string(id) + " " + remote.ToString() + " uid " +
        std::to_string(uid));
  }
  void OnData(uint32_t id, std::string bytes) override {
    Add("data #" + std::to_string(id) + " " + Hex(bytes));
  }
  void OnClose(uint32_t id) override { Add("close #" + std::to_string(id)); }
  void OnDatagram(const HostAndPort& local, const HostAndPort& remote,
                  const std::string& payload) override {
    Add("udp " + local.ToString() + " " + remote.ToString() + " " +
        Hex(payload));
  }
  void OnPackageName(uint32_t uid, const std::string& name) override {
    Add("package uid " + std::to_string(uid) + " '" + name + "'");
  }
  void OnTransfer(std::unique_ptr<FlowScheduler::Flow> transfer) override {
    std::string message;
    while (transfer->TakeMessage(3, &message)) {
    }
    Add("transfer " + Hex(message));
  }
  void OnNotice(const std::string& text) override {
    Add("notice '" + text + "'");
  }
  void OnUnexpected(const std::string& text) override {
    Add("unexpected '" + text + "'");
  }
  void OnFailure(const std::string& text) override {
    Add("fatal '" + text + "'");
  }

  // What was answered so far goes before the next line.
  void Add(const std::string& line) {
    if (!control.empty()) lines.push_back("reply " + Hex(control));
    control.clear();
    if (!line.empty()) lines.push_back(line);
  }

  std::string control;
  std::vector<std::string> lines;
};

struct case_t {
  int version;
  std::string bytes;
  std::vector<std::string> calls;
};

int GetSpoken(const std::string& bytes) {
  return bytes[0] == 'V' ? 20 : bytes[0] == '\x10' ? 5 : 1;
}

std::vector<std::string> Feed(const case_t& c, size_t step) {
  const LogCapture silence;
  Recorder device;
  std::unique_ptr<LinkProtocol> protocol;
  if (c.version == LinkOpening::kAnyProtocol) {
    protocol = std::make_unique<ProtocolAuto>("b", &device.control);
  } else if (c.version == 20) {
    protocol = std::make_unique<ProtocolV2>("b", &device.control);
  } else {
    protocol = std::make_unique<ProtocolV1>(c.version, &device.control);
  }
  for (size_t at = 0; at < c.bytes.size(); at += step) {
    const std::string piece = c.bytes.substr(at, step);
    for (size_t taken = 0, count; taken < piece.size(); taken += count) {
      const LinkProtocol::room_t room = protocol->GetRoom();
      count = piece.copy(room.begin, room.size, taken);
      protocol->OnFilled(count);
      while (protocol->HandleNext(device)) {
      }
      if (count == 0) break;
    }
  }
  device.Add("");
  return device.lines;
}

TEST(LinkProtocolTest, ReadsWholeAndByteByByte) {
  const std::string start = Frame(2, "ca0c 04 0801 1200");
  const std::string ack = "reply " + Hex(Frame(3, "d20c 05 0801 120162"));
  const std::string damaged = RawFrame(Bytes("0808 1001"), "hello", 5);
  const case_t cases[] = {
      {20,
       start + Frame(5, "e20c 0f 0803 1208 0a04c6336450 1050 188b4f") +
           Frame(8, "fa0c 02 0803", "hello") + damaged +
           Frame(7, "f20c 02 0803") + Frame(4, "da0c 02 0801") +
           Frame(10, "8a0d 15 0a09 0a04c0a8a7ef 10b424 1208 0a04c6336450 1050",
                 "hello") +
           Frame(13, "a20d 0c 0a0a 088b4f 1205 636f6d2e61") + Frame(15, ""),
       {ack, "connect #3 198.51.100.80:80 uid 10123", "data #3 68656c6c6f",
        "close #3", "ready 'protocol 20, device build \"\"'",
        "udp 192.168.167.239:4660 198.51.100.80:80 68656c6c6f",
        "package uid 10123 'com.a'", "unexpected 'message type 15'"}},
      // A port above 65535.
      {20,
       start + Frame(5, "e20c 06 1204 10808004"),
       {ack, "connect #0 :0 uid 4294967295"}},
      {20,
       start + "XXXXXXXX" + start,
       {ack + Hex(Frame(1, "c20c 11 0a0f" + Hex("bad frame magic"))),
        "fatal 'bad frame magic'"}},
      {1,
       Bytes("01 00000003 c6336450 0050 278b  0a 278b 0005 636f6d2e61"
             "03 00000003 0005 68656c6c6f  03 00000004 0000  02 00000003"
             "04 c6336450 0050 0002 6869  05 01020304  06 00000003"
             "0a ffff 0000"),
       {"ready 'protocol 1'", "connect #3 198.51.100.80:80 uid 10123",
        "package uid 10123 'com.a'", "data #3 68656c6c6f", "data #4 ",
        "close #3", "udp :0 198.51.100.80:80 6869", "reply 0501020304",
        "unexpected 'message type 6'", "package uid 4294967295 ''"}},
      {5,
       Bytes("10 00000005 0000  02 00000003  12 00000005 0000"
             "0e c0a8a7ef 1234 c6336450 0050 8b27 0002 6869"
             "0c 00000001 00000003  0d 00000001 0002 6161"
             "0d 00000001 0001 61  0d 00000001 0001 61"
             "08 00000007 00000005  13 02 00000003"),
       {"reply 11000000050000", "close #3", "ready 'protocol 5'",
        "udp 192.168.167.239:4660 198.51.100.80:80 6869",
        "notice 'push 1: expecting 3 bytes'",
        "notice 'push 1: received 3 bytes'", "unexpected 'data of no push'",
        "notice 'pull 7: sending 5 bytes'",
        "transfer 09000000070003626262090000000700026262",
        "fatal 'unknown message type 19'"}},
      {5,
       Bytes("10 00000004 0000"),
       {"reply 11000000050000",
        "fatal 'the device sends version 4 in its handshake, not 5'"}},
      // The device is told, too.
      {20,
       Bytes("564e 0009 0000 3795 0802ca0c0408011200"),
       {"reply " + Hex(Frame(1, "c20c 3a 0a38" +
                                    Hex("the device sends the sizes of its "
                                        "first frame big-endian"))),
        "fatal 'the device sends the sizes of its first frame big-endian'"}},
      // Each version of the companion with a device of another.
      {5,
       Bytes("02 00000003"),
       {"fatal 'message type 2 before handshake: the device speaks protocol "
        "1'"}},
      {5, start, {"fatal 'the device speaks protocol 20'"}},
      {1,
       start,
       {"ready 'protocol 1'", "fatal 'the device speaks protocol 20'"}},
      {1,
       Bytes("10 00000005 0000"),
       {"ready 'protocol 1'", "reply 11000000010000",
        "fatal 'the device speaks protocol 5'"}},
      {20, Bytes("10 00000005 0000"), {"fatal 'the device speaks protocol 5'"}},
      {20,
       Bytes("01 00000003 c6336450 0050 278b"),
       {"fatal 'the device speaks protocol 1'"}},
  };
  for (case_t c : cases) {
    EXPECT_THAT(Feed(c, c.bytes.size()), ElementsAreArray(c.calls));
    EXPECT_THAT(Feed(c, 1), ElementsAreArray(c.calls));
    if (GetSpoken(c.bytes) != c.version) continue;
    c.version = LinkOpening::kAnyProtocol;
    EXPECT_THAT(Feed(c, c.bytes.size()), ElementsAreArray(c.calls));
    EXPECT_THAT(Feed(c, 1), ElementsAreArray(c.calls));
  }
  const case_t beginnings[] = {
      {LinkOpening::kAnyProtocol,
       Bytes("7f 00000003"),
       {"fatal 'the device begins with 7F, with which no protocol begins'"}},
      // A connection header would begin like that, too.
      {LinkOpening::kAnyProtocol,
       Bytes("05 00000000"),
       {"ready 'protocol 1'", "reply 0500000000"}},
      {LinkOpening::kAnyProtocol,
       Bytes("16 0000000000 665544332211 0000000000000000 00000000"),
       {"fatal 'the device sends a connection header, which has no place here; "
        "is it to be started without --header?'"}},
  };
  for (const case_t& c : beginnings) {
    EXPECT_THAT(Feed(c, c.bytes.size()), ElementsAreArray(c.calls));
    EXPECT_THAT(Feed(c, 1), ElementsAreArray(c.calls));
  }
}

}  // namespace
}  // namespace vantrel
