#include "link/connection_header.h"

#include <gmock/gmock.h>
#include <time.h>
#include <unistd.h>

#include <thread>

#include "common/hex_testing.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

const char kHeader[] = "03000000 0000 0A1B2C3D4E5F 00000000 00000000 DE03 EF03";

class ConnectionHeaderTest : public ::testing::Test {
 protected:
  void Connect(int type) {
    auto [fd, peer] = MakeSocketPair(type);
    socket_ = std::make_unique<Socket>(fd);
    peer_ = std::move(peer);
  }
  void Send(const std::string& bytes) {
    ASSERT_EQ(static_cast<int>(bytes.size()),
              peer_->Write(bytes.data(), bytes.size()));
  }

  LogCapture log_;
  std::unique_ptr<Socket> socket_, peer_;
  connection_header_t header_;
  const std::string bytes_ = Bytes(kHeader);
};

// A socket that keeps packet boundaries makes each piece one read.
TEST_F(ConnectionHeaderTest, ComesInPiecesAndIsLoggedStepByStep) {
  Connect(SOCK_SEQPACKET);
  Send(bytes_.substr(0, 1));
  Send(bytes_.substr(1, 7));
  Send(bytes_.substr(8));
  ASSERT_TRUE(ReceiveConnectionHeader(*socket_, &header_));
  EXPECT_EQ(990, header_.max_tx_size);
  EXPECT_EQ(bytes_, EncodeConnectionHeader(header_));
  EXPECT_THAT(
      log_.Take(),
      ElementsAre("D: [B] connect:select...", "D: [B] Connect: read header...",
                  "D: [B] Connect: read 1:1 header size: 24",
                  "D: [B] connect:select...", "D: [B] Connect: read header...",
                  "D: [B] Connect: read 7:8 header size: 24",
                  "D: [B] connect:select...", "D: [B] Connect: read header...",
                  "D: [B] Connect: read 16:24 header size: 24",
                  "I: [B] Connected to 0A:1B:2C:3D:4E:5F on channel 3.",
                  "I: [B] Expected max_tx_size 990 max_rx_size 1007"));
}

TEST_F(ConnectionHeaderTest, WhatEndsTheConnection) {
  const struct {
    std::string bytes;  // then the peer closes
    const char* last_line;
  } cases[] = {
      {Bytes("03000000 0000 0A1B2C3D4E5F 00000000 01000000 DE03 EF03"),
       "E: [B] Connection status error: 1"},
      {Bytes("03000000 0000 0A1B2C3D4E5F 00000000 00FFFFFF DE03 EF03"),
       "E: [B] Connection status error: -256"},
      {"", "E: [B] Error reading from Bluetooth socket: "},
      {bytes_.substr(0, 23), "E: [B] Error reading from Bluetooth socket: "},
  };
  for (const auto& c : cases) {
    Connect(SOCK_STREAM);
    Send(c.bytes);
    peer_.reset();
    EXPECT_FALSE(ReceiveConnectionHeader(*socket_, &header_));
    EXPECT_THAT(log_.Take().back(), HasSubstr(c.last_line));
  }
}

// Must really wait: a byte in the middle does not start the time anew.
TEST_F(ConnectionHeaderTest, FiveSecondsBoundTheWholeHeader) {
  Connect(SOCK_STREAM);
  Send(bytes_.substr(0, 22));
  std::thread late([this] {
    usleep(2500000);
    Send(bytes_.substr(22, 1));
  });
  const time_t start = time(nullptr);
  EXPECT_FALSE(ReceiveConnectionHeader(*socket_, &header_));
  EXPECT_NEAR(5, static_cast<double>(time(nullptr) - start), 1);
  late.join();
  EXPECT_EQ("E: [B] Timed out waiting for connection header.",
            log_.Take().back());
}

}  // namespace
}  // namespace vantrel
