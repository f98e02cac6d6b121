#include "support/status_server.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <string>

#include "common/link_address.h"

namespace vantrel {
namespace {

class StatusServerTest : public ::testing::Test {
 protected:
  UniqueFd Connect() {
    sockaddr_un address;
    const socklen_t length = ToSocketAddress(path_, &address);
    UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(0, connect(fd.Get(), reinterpret_cast<const sockaddr*>(&address),
                         length));
    return fd;
  }
  // What |reader| has read of |count| states, while the server writes on.
  std::string Read(const UniqueFd& reader, size_t count) {
    std::string text;
    while (text.size() < count * (state_.size() + 1)) {
      loop_.restart();
      loop_.poll();
      char piece[65536];
      const ssize_t size =
          recv(reader.Get(), piece, sizeof(piece), MSG_DONTWAIT);
      if (size == 0) break;
      if (size > 0) text.append(piece, static_cast<size_t>(size));
    }
    return text;
  }

  const std::string path_ = "@status-server-test-" + std::to_string(getpid());
  // Longer than what a socket takes.
  const std::string state_ = std::string(1 << 20, 'x');
  size_t said_ = 0;
  asio::io_context loop_{1};
  StatusServer server_{
      loop_,
      path_,
      {[this] { return state_; }, [this](const std::string&) { ++said_; }}};
};

TEST_F(StatusServerTest, OnlyThoseThatDoNotReadAreDropped) {
  const UniqueFd lazy = Connect();
  const UniqueFd keen = Connect();
  EXPECT_EQ(state_ + "\n", Read(keen, 1));
  for (int i = 0; i < StatusServer::kMaxLinesBehind; ++i) {
    server_.SendState();
    EXPECT_EQ(state_ + "\n", Read(keen, 1));
  }
  EXPECT_EQ(0u, said_);
  server_.SendState();
  EXPECT_EQ(state_ + "\n", Read(keen, 1));
  EXPECT_EQ(1u, said_);
  // The end comes behind what the socket had taken.
  EXPECT_GT(state_.size(), Read(lazy, 1).size());
}

}  // namespace
}  // namespace vantrel
