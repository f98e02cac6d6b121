#include "link/connection_header.h"

#include <gtest/gtest.h>

#include <vector>

#include "common/hex_testing.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

// A socket that keeps packet boundaries makes each piece one read. What ends a
// connection is shown end to end, the wait of five seconds as well.
TEST(ConnectionHeaderTest, ComesInPiecesAndIsLoggedStepByStep) {
  LogCapture log_capture;
  auto [fd, peer] = MakeSocketPair(SOCK_SEQPACKET);
  const std::string bytes =
      Bytes("03000000 0000 0A1B2C3D4E5F 00000000 00000000 DE03 EF03");
  peer->Write(bytes.data(), 1);
  peer->Write(bytes.data() + 1, 7);
  peer->Write(bytes.data() + 8, 16);
  connection_header_t header;
  ASSERT_TRUE(ReceiveConnectionHeader(Socket(fd), &header));
  EXPECT_EQ(990, header.max_tx_size);
  EXPECT_EQ(bytes, EncodeConnectionHeader(header));
  const std::vector<std::string> log = log_capture.Take();
  ASSERT_EQ(11u, log.size());
  EXPECT_EQ("D: [B] Connect: read 1:1 header size: 24", log[2]);
  EXPECT_EQ("D: [B] Connect: read 7:8 header size: 24", log[5]);
  EXPECT_EQ("D: [B] Connect: read 16:24 header size: 24", log[8]);
  EXPECT_EQ("I: [B] Expected max_tx_size 990 max_rx_size 1007", log[10]);
}

}  // namespace
}  // namespace vantrel
