#include "link_v2/proxy_socket_v2.h"

#include <gmock/gmock.h>

#include <deque>

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

TEST_F(LinkTest, StreamsTakeTurnsAndEndInTheirTurn) {
  ConnectAndShakeHands();
  FakeConduit last(9, 1, ""), first(2, 1, ""), ended(5, 1, "");
  for (FakeConduit* conduit : {&last, &first, &ended}) {
    link_.RegisterTcpStream(conduit);
  }
  Sent();
  last.chunks = {"a", "b"};
  first.chunks = {"c", "d", "e"};
  ended.ended = true;
  for (const unsigned int id : {2, 5, 9}) link_.OnTcpDataAvailable(id);
  EXPECT_EQ(TcpWrite('2', "c") + TcpClose('5') + TcpWrite('9', "a") +
                TcpWrite('2', "d") + TcpWrite('9', "b") + TcpWrite('2', "e"),
            Sent());
  EXPECT_EQ(1, ended.closes);
  EXPECT_TRUE(WantsToWrite()) << "there may be more after a productive turn";
  EXPECT_EQ("", Sent());
  EXPECT_FALSE(WantsToWrite());
  link_.OnTcpDataAvailable(2);
  EXPECT_TRUE(WantsToWrite());
}

// Passes over 3 streams end at 18; and one pass is never cut short.
TEST_F(LinkTest, StopsAskingAtSixteenQueuedFrames) {
  ConnectAndShakeHands();
  std::deque<FakeConduit> conduits;
  for (const size_t frames :
       {16, 16, 18, 16, 20, 18, 21, 16, 18, 20, 22, 24, 26, 28, 30, 16, 17}) {
    link_.RegisterTcpStream(&conduits.emplace_back(conduits.size(), 1, ""));
    Sent();
    for (FakeConduit& conduit : conduits) {
      conduit.chunks.assign(16, "x");
      link_.OnTcpDataAvailable(conduit.GetId());
    }
    Sent();
    size_t left = 0;
    for (FakeConduit& conduit : conduits) {
      left += conduit.chunks.size();
      conduit.chunks.clear();
    }
    EXPECT_EQ(frames, 16 * conduits.size() - left) << conduits.size();
  }
}

// As above, but full of what is no stream's: it is not asked, nor forgotten.
TEST_F(LinkTest, AFullQueueDoesNotForgetAStream) {
  ConnectAndShakeHands();
  std::deque<FakeConduit> conduits;
  for (unsigned int id = 0; id < 16; ++id) {
    link_.RegisterTcpStream(&conduits.emplace_back(id, 1, ""));
  }
  conduits[3].chunks = {"x"};
  link_.OnTcpDataAvailable(3);
  EXPECT_THAT(Sent(), ::testing::Not(HasSubstr(TcpWrite('3', "x"))));
  EXPECT_TRUE(WantsToWrite());
  EXPECT_EQ(TcpWrite('3', "x"), Sent());
}

TEST_F(LinkTest, HandsMessagesToTheirStream) {
  ConnectAndShakeHands();
  FakeConduit zero(0, 1, "zero"), seven(7, 1, "seven");
  link_.RegisterTcpStream(&zero);
  link_.RegisterTcpStream(&seven);
  Sent();
  Receive(TcpWrite('7', "hello") + Frame(8, "", "no-message"));
  EXPECT_FALSE(WantsToWrite());
  Receive(Frame(9, "820D 02 08 07"));
  EXPECT_TRUE(WantsToWrite()) << "credit came back: ask the stream again";
  Receive(TcpClose('7') + TcpClose('7') + TcpWrite('7', "late"));
  EXPECT_THAT(seven.written, ElementsAre("hello"));
  EXPECT_EQ(1, seven.acks);
  EXPECT_EQ(1, seven.closes);
  EXPECT_THAT(zero.written, ElementsAre("no-message"));
  EXPECT_EQ("", Sent()) << "a close is not answered";
}

}  // namespace
}  // namespace vantrel
