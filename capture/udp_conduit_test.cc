#include "capture/udp_conduit.h"

#include <gmock/gmock.h>

#include "common/hex_testing.h"
#include "common/network_testing.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(UdpConduitTest, AnAnswerThatCannotBeSentIsLostAlone) {
  if (!EnterPrivateNetwork()) GTEST_SKIP() << "no network namespace";
  LogCapture log;
  Reactor reactor;
  const Socket application(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0));
  sockaddr_in address = Endpoint("7F000001", 0).GetSockAddrV4();
  socklen_t length = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(0, bind(application.GetFd(), generic, length));
  ASSERT_EQ(0, getsockname(application.GetFd(), generic, &length));
  const HostAndPort to = HostAndPort::FromIPv4Addr(address);

  UdpConduit conduit(reactor, Endpoint("C6336407", 443));
  ASSERT_TRUE(conduit.Bind());
  ASSERT_TRUE(conduit.Bind());
  EXPECT_EQ(1u, log.Take().size()) << "bound once";
  conduit.SendResponse(to, "one");
  conduit.SendResponse(Endpoint("C6336408", 9), "no route");
  conduit.SendResponse(to, "three");
  EXPECT_TRUE(reactor.IsRegistered(conduit, Reactor::kWrite));
  EXPECT_EQ("", ReadAll(application));
  conduit.OnWriteReady();
  EXPECT_THAT(
      log.Take(),
      ElementsAre(HasSubstr(" Error writing datagram to 198.51.100.8:9: ")));
  EXPECT_TRUE(reactor.IsRegistered(conduit, Reactor::kWrite))
      << "the rest goes with the next call";
  conduit.OnWriteReady();
  EXPECT_FALSE(reactor.IsRegistered(conduit, Reactor::kWrite));
  EXPECT_EQ("onethree", ReadAll(application));
}

}  // namespace
}  // namespace vantrel
