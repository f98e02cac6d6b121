#include "companion/link_listener.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

namespace vantrel {
namespace {

TEST(LinkListenerTest, ReplacesOnlySocketFilesThatNobodyListensOn) {
  char directory[] = "/tmp/link_listener_test.XXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string path = std::string(directory) + "/link";
  const LinkAddress address = {LinkAddress::Kind::kUnix, path, ""};
  Reactor reactor;
  const auto ignore = [](int fd) { close(fd); };
  testing::internal::CaptureStderr();
  {
    sockaddr_un left_behind = {};
    left_behind.sun_family = AF_UNIX;
    path.copy(left_behind.sun_path, sizeof(left_behind.sun_path) - 1);
    const Socket gone(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(bind(gone.GetFd(), reinterpret_cast<sockaddr*>(&left_behind),
                   sizeof(left_behind)),
              0);
  }
  {
    LinkListener first(reactor, ignore), second(reactor, ignore);
    EXPECT_TRUE(first.Open(address));
    EXPECT_FALSE(second.Open(address));
  }
  EXPECT_EQ(access(path.c_str(), F_OK), -1) << "not removed";
  std::ofstream(path) << "precious";
  EXPECT_FALSE(LinkListener(reactor, ignore).Open(address));
  EXPECT_EQ(access(path.c_str(), F_OK), 0);
  testing::internal::GetCapturedStderr();
  unlink(path.c_str());
  rmdir(directory);
}

}  // namespace
}  // namespace vantrel
