#include "capture/udp_server.h"

#include <gtest/gtest.h>

#include "capture/capture_testing.h"
#include "common/hex_testing.h"
#include "common/network_testing.h"
#include "platform/linux/log_capture.h"

namespace vantrel {
namespace {

TEST(UdpServerTest, GivesTheLoopATurnAfterSixtyFourDatagrams) {
  if (!EnterPrivateNetwork()) GTEST_SKIP() << "no network namespace";
  LogCapture log;
  Reactor reactor;
  FakeLink link;
  UdpServer server(reactor, link);
  const sockaddr_in address =
      Endpoint("7F000001", server.Listen()).GetSockAddrV4();
  const Socket application(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  for (int i = 0; i < 100; ++i) {
    ASSERT_EQ(1, sendto(application.GetFd(), "x", 1, 0,
                        reinterpret_cast<const sockaddr*>(&address),
                        sizeof(address)));
  }
  server.OnReadReady();
  EXPECT_EQ(64, link.datagrams);
  server.OnReadReady();
  EXPECT_EQ(100, link.datagrams);
}

}  // namespace
}  // namespace vantrel
