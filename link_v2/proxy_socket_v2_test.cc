#include "link_v2/proxy_socket_v2.h"

#include <gmock/gmock.h>

#include <deque>

#include "capture/link_model_testing.h"
#include "link/link_testing.h"
#include "link_v2/frame_testing.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

std::string TcpWrite(char id, const std::string& payload) {
  return Frame(8, "FA0C 02 08 0" + std::string(1, id), payload);
}
std::string TcpClose(char id) {
  return Frame(7, "F20C 02 08 0" + std::string(1, id));
}

const std::string kAck = Frame(3, "D20C 05 08 01 12 01 78");
const std::string kTeardown = Frame(1, "C20C 05 0A 03 627965");

class LinkTest : public ::testing::Test {
 protected:
  bool Connect(int type = SOCK_STREAM,
               const std::string& header = GoodConnectionHeader()) {
    auto [fd, peer] = MakeSocketPair(type);
    peer_ = std::move(peer);
    peer_->Write(header.data(), header.size());
    const bool connected = link_.Connect(fd);
    log_.Take();
    return connected;
  }
  void ConnectAndShakeHands() {
    ASSERT_TRUE(Connect());
    Receive(kAck);
    Sent();
    log_.Take();
  }
  void Receive(const std::string& bytes) {
    fcntl(link_.GetFd(), F_SETFL, O_NONBLOCK);
    peer_->Write(bytes.data(), bytes.size());
    link_.OnReadReady();
  }
  // What the link sends when its socket is writable.
  std::string Sent() {
    link_.OnWriteReady();
    return ReadAll(*peer_);
  }
  bool WantsToWrite() { return reactor_.IsRegistered(link_, Reactor::kWrite); }

  StopCatcher stop_;
  LogCapture log_;
  Reactor reactor_;
  FakeLinkDelegate delegate_;
  ProxySocketV2 link_{&delegate_, reactor_};
  std::unique_ptr<Socket> peer_;
};

TEST_F(LinkTest, CutsItsWritesToTheSizeOfTheHeader) {
  // At most 10 bytes a write, seen by a socket that keeps packet boundaries.
  ASSERT_TRUE(Connect(SOCK_SEQPACKET, GoodConnectionHeader(10)));
  link_.OnWriteReady();
  char packet[64];
  EXPECT_EQ(10, peer_->Read(packet, sizeof(packet)));
  EXPECT_EQ(7, peer_->Read(packet, sizeof(packet)));
}

TEST_F(LinkTest, ReadsOnlySoMuchInOneTurn) {
  ConnectAndShakeHands();
  const size_t count =
      ReadInOneTurn(link_, *peer_, TcpWrite('1', std::string(999, 'x')));
  EXPECT_GE(count, Reactor::kMaxReadBytes);
  EXPECT_LT(count, Reactor::kMaxReadBytes + 8192);
}

// Also where that is seen at the end of a turn that has read its share.
TEST_F(LinkTest, ALostFramingEndsTheLinkInItsTurn) {
  ConnectAndShakeHands();
  std::string bytes;
  while (bytes.size() < 114680) bytes += Frame(6, "");
  const int buffer = 1 << 20;
  setsockopt(peer_->GetFd(), SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
  Receive(bytes + "NV" + std::string(6 + 16384, 'x'));
  EXPECT_TRUE(stop_.TakeStop());
}

TEST_F(LinkTest, SaysWhyAMessageIsUnexpected) {
  const std::string line = "W: [B] Unexpected message: 'ProxySocketV2 ";
  ASSERT_TRUE(Connect());
  Receive(Frame(6, "") + kAck);
  EXPECT_EQ(line + "handshake not complete', type=6", log_.Take()[0]);
  Receive(kAck + Frame(15, "") + Frame(16, "") + Frame(5, ""));
  EXPECT_THAT(log_.Take(),
              ElementsAre(line + "unexpected message type', type=3",
                          line + "unexpected message type', type=15",
                          line + "unexpected message type', type=0",
                          line + "unexpected message type', type=5"));
  // Ignored types, and flows that are not or no longer known.
  Receive(Frame(6, "") + Frame(12, "") + TcpWrite('1', "x") + TcpClose('1') +
          Frame(9, "820D 02 08 01"));
  EXPECT_THAT(log_.Take(), IsEmpty());
}

TEST_F(LinkTest, ClosesForGood) {
  std::string failed = GoodConnectionHeader();
  failed[16] = 1;  // Connect() fails, but the link has its socket
  const std::pair<std::string, size_t> cases[] = {
      {failed + kTeardown, 1},
      {GoodConnectionHeader() + kTeardown, 1},
      {GoodConnectionHeader() + Frame(3, "D20C 02 08 02"), 0},
  };
  for (const auto& [received, teardowns] : cases) {
    SCOPED_TRACE(received);
    FakeLinkDelegate delegate;
    ProxySocketV2 link(&delegate, reactor_);
    auto [fd, peer] = MakeSocketPair();
    peer->Write(received.data(), received.size());
    EXPECT_EQ(received[16] == 0, link.Connect(fd));
    fcntl(fd, F_SETFL, O_NONBLOCK);
    link.OnReadReady();
    EXPECT_TRUE(stop_.TakeStop());
    EXPECT_EQ(teardowns, delegate.calls.size());
    EXPECT_THAT(log_.Take().back(), HasSubstr("Closing ProxySocketV2: "));
    link.OnWriteReady();
    ReadAll(*peer);
    FakeConduit late(1, 10000, "p");
    link.RegisterTcpStream(&late);
    link.OnWriteReady();
    EXPECT_EQ("", ReadAll(*peer));
    peer->Write(kAck.data(), kAck.size());
    link.OnReadReady();
    EXPECT_THAT(log_.Take().back(), HasSubstr("is closed', type=3"));
  }
}

TEST_F(LinkTest, AnnouncesStreamsAndNewPackageNames) {
  ASSERT_TRUE(Connect());  // nothing waits for the end of the handshake
  Sent();
  FakeConduit a(7, 4294967295, "a"), same(7, 10000, "twice");
  FakeConduit again(8, 4294967295, "a"), renamed(9, 4294967295, "");
  const std::string uid = "18 FFFFFFFF0F";
  const std::string remote = " 12 08 0A 04 C6336450 10 50 ";
  const std::string name = "A20D 0B 0A 09 08 FFFFFFFF0F 12 01 61";
  for (FakeConduit* conduit : {&a, &same, &again, &renamed}) {
    link_.RegisterTcpStream(conduit);
  }
  EXPECT_EQ(Frame(5, "E20C 12 08 07" + remote + uid) + Frame(13, name) +
                Frame(5, "E20C 12 08 08" + remote + uid) +
                Frame(5, "E20C 12 08 09" + remote + uid) +
                Frame(13, "A20D 0A 0A 08 08 FFFFFFFF0F 12 00"),
            Sent());
  EXPECT_THAT(log_.Take(), ElementsAre("W: [B] Duplicate stream id 7"));
}

TEST_F(LinkTest, AFrameWithoutItsMessageIsAboutStreamZero) {
  ConnectAndShakeHands();
  FakeConduit zero(0, 1, "zero"), seven(7, 1, "seven");
  link_.RegisterTcpStream(&zero);
  link_.RegisterTcpStream(&seven);
  Receive(Frame(8, "", "no-message"));
  EXPECT_THAT(zero.written, ElementsAre("no-message"));
  EXPECT_THAT(seven.written, IsEmpty());
}

class Language : public LinkLanguage {
 public:
  std::unique_ptr<ProxySocket> MakeLink(ProxySocket::Delegate* delegate,
                                        Reactor& reactor) override {
    return std::make_unique<ProxySocketV2>(delegate, reactor);
  }
  std::string Hello() override { return Frame(2, "CA0C 04 08 01 12 00"); }
  std::string Ack() override { return kAck; }
  std::string Done() override { return Frame(4, "DA0C 02 08 01"); }
  std::vector<std::string> Connect(uint8_t id, bool is_first) override {
    const std::string connect = Frame(
        5, "E20C 12" + Id(id) + "12 08 0A 04 C6336450 10 50 18 FFFFFFFF0F");
    if (!is_first) return {connect};
    return {connect, Frame(13, "A20D 0A 0A 08 08 FFFFFFFF0F 12 00")};
  }
  std::string Data(uint8_t id, const std::string& bytes) override {
    return Frame(8, "FA0C 02" + Id(id), bytes);
  }
  std::string Close(uint8_t id) override {
    return Frame(7, "F20C 02" + Id(id));
  }
  std::string WriteAck(uint8_t id) override {
    return Frame(9, "820D 02" + Id(id));
  }
  bool ComesBack() override { return true; }

 private:
  static std::string Id(uint8_t id) {
    return std::string("08") + "0123456789ABCDEF"[id / 16] +
           "0123456789ABCDEF"[id % 16];
  }
};

TEST(LinkModelTest, DoesWhatTheModelDoes) {
  Language language;
  RunLinkModel(language, 20);
}

}  // namespace
}  // namespace vantrel
