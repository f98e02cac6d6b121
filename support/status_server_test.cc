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
  void Poll() {
    loop_.restart();
    loop_.poll();
  }
  // Reads on until |text| has |size| bytes, or the end.
  void Read(const UniqueFd& reader, size_t size, std::string* text) {
    while (text->size() < size) {
      Poll();
      char piece[65536];
      const ssize_t count =
          recv(reader.Get(), piece, sizeof(piece), MSG_DONTWAIT);
      if (count == 0) break;
      if (count > 0) text->append(piece, static_cast<size_t>(count));
    }
  }

  const std::string path_ = "@status-server-test-" + std::to_string(getpid());
  // Longer than what a socket takes.
  const std::string state_ = std::string(1 << 18, 'x') + "\n";
  size_t made_ = 0;     // states
  size_t dropped_ = 0;  // how many were made when a reader was dropped
  asio::io_context loop_{1};
  StatusServer server_{loop_,
                       path_,
                       {[this] {
                          ++made_;
                          return state_.substr(0, state_.size() - 1);
                        },
                        [this](const std::string&) { dropped_ = made_; }}};
};

// The server's own tick may send states as well, on a slow machine.
TEST_F(StatusServerTest, OnlyThoseThatDoNotReadAreDropped) {
  const UniqueFd keen = Connect();
  const UniqueFd lazy = Connect();
  while (made_ < 2) Poll();
  std::string text;
  while (dropped_ == 0 && made_ < 20) {
    // All but the first one of |lazy|.
    Read(keen, (made_ - 1) * state_.size(), &text);
    server_.SendState();
  }
  EXPECT_EQ(2u + StatusServer::kMaxLinesBehind + 1, dropped_);
  Read(keen, (made_ - 1) * state_.size(), &text);
  EXPECT_LE((dropped_ - 1) * state_.size(), text.size());
  std::string expected;
  while (expected.size() < text.size()) expected += state_;
  EXPECT_EQ(0, expected.compare(0, text.size(), text));
  // The end comes behind what the socket had taken.
  std::string rest;
  Read(lazy, state_.size(), &rest);
  EXPECT_GT(state_.size(), rest.size());
}

}  // namespace
}  // namespace vantrel
