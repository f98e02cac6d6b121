#include "capture/udp_conduit.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>

#include "capture/capture_testing.h"
#include "capture/udp_server.h"
#include "common/hex_testing.h"
#include "common/network_testing.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// An application's socket at 127.0.0.1.
class Application : public Socket {
 public:
  Application() : Socket(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0)) {
    sockaddr_in address = Endpoint("7F000001", 0).GetSockAddrV4();
    EXPECT_EQ(0, bind(GetFd(), reinterpret_cast<sockaddr*>(&address),
                      sizeof(address)));
    socklen_t length = sizeof(address);
    getsockname(GetFd(), reinterpret_cast<sockaddr*>(&address), &length);
    endpoint = HostAndPort::FromIPv4Addr(address);
  }
  // The next datagram that waits, as "sender text"; empty for none.
  std::string Receive() {
    char text[64];
    sockaddr_in sender = {};
    socklen_t length = sizeof(sender);
    const ssize_t size =
        recvfrom(GetFd(), text, sizeof(text), 0,
                 reinterpret_cast<sockaddr*>(&sender), &length);
    if (size < 0) return "";
    return HostAndPort::FromIPv4Addr(sender).ToString() + " " +
           std::string(text, static_cast<size_t>(size));
  }

  HostAndPort endpoint;
};

class UdpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!in_private_network_) GTEST_SKIP() << "no network namespace";
  }
  bool WantsToWrite(const UdpConduit& conduit) {
    return reactor_.IsRegistered(conduit, Reactor::kWrite);
  }

  const bool in_private_network_ = EnterPrivateNetwork();  // before any socket
  LogCapture log_;
  Reactor reactor_;
  Application application_;
};

TEST_F(UdpTest, AnswersComeInOrderFromTheRemoteItself) {
  UdpConduit conduit(reactor_, Endpoint("C6336407", 443));
  ASSERT_TRUE(conduit.Bind());
  ASSERT_TRUE(conduit.Bind());
  EXPECT_THAT(log_.Take(),
              ElementsAre(HasSubstr(" Ready to tunnel: 198.51.100.7:443")));
  conduit.SendResponse(application_.endpoint, "one");
  conduit.SendResponse(Endpoint("C6336408", 9), "no route: lost alone");
  conduit.SendResponse(application_.endpoint, "");
  conduit.SendResponse(application_.endpoint, "three");
  EXPECT_TRUE(WantsToWrite(conduit));
  EXPECT_EQ("", application_.Receive());
  conduit.OnWriteReady();
  EXPECT_THAT(
      log_.Take(),
      ElementsAre(HasSubstr(" Error writing datagram to 198.51.100.8:9: ")));
  EXPECT_TRUE(WantsToWrite(conduit)) << "the rest goes with the next call";
  conduit.OnWriteReady();
  EXPECT_FALSE(WantsToWrite(conduit));
  EXPECT_EQ("198.51.100.7:443 one", application_.Receive());
  EXPECT_EQ("198.51.100.7:443 ", application_.Receive());
  EXPECT_EQ("198.51.100.7:443 three", application_.Receive());
}

TEST_F(UdpTest, ARequestThatFailedIsRefusedOnlyForDns) {
  const struct {
    uint16_t port;
    const char *request, *answer;  // null: none
  } cases[] = {
      {53, "0A1B 01FF 0001 0000 00000000", "0A1B 8105 0001 0000 00000000"},
      {53, "0A1B 0120 0000 0000 00000000 FF",
       "0A1B 8105 0000 0000 00000000 FF"},
      {53, "0A1B 0100 0001 0000 000000", nullptr},
      {5353, "0A1B 0100 0001 0000 00000000", nullptr},
  };
  for (const auto& c : cases) {
    UdpConduit conduit(reactor_, Endpoint("C6336407", c.port));
    ASSERT_TRUE(conduit.Bind());
    log_.Take();
    conduit.SendFailure(application_.endpoint, Bytes(c.request));
    conduit.OnWriteReady();
    if (c.answer == nullptr) {
      EXPECT_EQ("", application_.Receive());
      EXPECT_THAT(log_.Take(), IsEmpty());
      continue;
    }
    EXPECT_EQ("198.51.100.7:53 " + Bytes(c.answer), application_.Receive());
    EXPECT_THAT(log_.Take(), ElementsAre(HasSubstr(" DNS remote failed"),
                                         HasSubstr("refuses to perform")));
  }
}

TEST_F(UdpTest, OnlyTheFirstBindOfAnIPv6RemoteFails) {
  UdpConduit conduit(reactor_,
                     Endpoint("20010DB8000000000000000000000001", 53));
  EXPECT_FALSE(conduit.Bind());
  EXPECT_THAT(
      log_.Take(),
      ElementsAre("E: Attempt to obtain sockaddr_in from wrong addr family 10",
                  HasSubstr(" Unable to bind to source address "
                            "2001:db8::1:53: ")));
  EXPECT_TRUE(conduit.Bind());
}

TEST_F(UdpTest, TheServerTakesEveryDatagramWhole) {
  FakeLink link;
  UdpServer server(reactor_, link);
  const HostAndPort listener = Endpoint("7F000001", server.Listen());
  ASSERT_NE(0, listener.port);
  EXPECT_TRUE(reactor_.IsRegistered(server, Reactor::kRead));
  const sockaddr_in to = listener.GetSockAddrV4();
  for (const size_t size : {size_t{0}, size_t{65507}}) {
    const std::string payload(size, 'a');
    ASSERT_EQ(static_cast<ssize_t>(size),
              sendto(application_.GetFd(), payload.data(), size, 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof(to)));
  }
  server.OnReadReady();
  ASSERT_EQ(2u, link.datagrams.size());
  EXPECT_EQ(application_.endpoint, link.datagrams[1].source);
  EXPECT_EQ(listener, link.datagrams[1].destination);
  EXPECT_EQ("", link.datagrams[0].payload);
  EXPECT_TRUE(std::string(65507, 'a') == link.datagrams[1].payload);

  const int off = 0;
  setsockopt(server.GetFd(), SOL_IP, IP_RECVORIGDSTADDR, &off, sizeof(off));
  sendto(application_.GetFd(), "x", 1, 0,
         reinterpret_cast<const sockaddr*>(&to), sizeof(to));
  server.OnReadReady();
  EXPECT_EQ(2u, link.datagrams.size());
  EXPECT_THAT(log_.Take(),
              ElementsAre("E: [U] Unable to extract destination address for "
                          "datagram."));
}

}  // namespace
}  // namespace vantrel
