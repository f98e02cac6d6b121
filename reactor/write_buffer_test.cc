#include "reactor/write_buffer.h"

#include <gtest/gtest.h>

#include <vector>

#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

// A socket that keeps packet boundaries shows what each write was given.
TEST(WriteBufferTest, CutsWritesToTheLimit) {
  const struct {
    uint16_t limit;
    size_t size;
    std::vector<size_t> writes;
  } cases[] = {
      {0, 70000, {70000}},
      {512, 1200, {512, 512, 176}},
      {40000, 65535, {40000, 25535}},
      // From here on what remains is cut to 16 bits.
      {40000, 65536, {40000, 25536}},
      {40000, 65537, {1, 40000, 25536}},
      {65535, 131073, {1, 65535, 1, 65535, 1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.size);
    auto [fd, peer] = MakeSocketPair(SOCK_SEQPACKET);
    WriteBuffer buffer;
    buffer.SetMaxWriteSize(c.limit);
    buffer.Append(std::string(c.size, 'a'));
    ASSERT_TRUE(buffer.Drain(Socket(fd)));
    std::vector<char> packet(c.size);
    std::vector<size_t> writes;
    int count;
    while ((count = peer->Read(packet.data(), packet.size())) > 0) {
      writes.push_back(static_cast<size_t>(count));
    }
    EXPECT_EQ(c.writes, writes);
    EXPECT_TRUE(buffer.IsEmpty());
  }
}

TEST(WriteBufferTest, KeepsWhatTheSocketDoesNotTake) {
  auto [fd, peer] = MakeSocketPair();
  const Socket socket(fd);
  fcntl(socket.GetFd(), F_SETFL, O_NONBLOCK);
  WriteBuffer buffer;
  std::string expected;
  for (const char letter : {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'}) {
    buffer.Append(std::string(100003, letter));
    expected += std::string(100003, letter);
  }
  buffer.Append("");
  EXPECT_EQ(9u, buffer.GetQueuedItemCount());
  std::string received;
  ASSERT_TRUE(buffer.Drain(socket));
  EXPECT_FALSE(buffer.IsEmpty());
  for (int i = 0; i < 100 && !buffer.IsEmpty(); ++i) {
    EXPECT_EQ(expected.size(),
              buffer.GetTotalWrittenByteCount() + buffer.GetQueuedByteCount());
    received += ReadAll(*peer);
    ASSERT_TRUE(buffer.Drain(socket));
  }
  EXPECT_TRUE(expected == received + ReadAll(*peer));
}

}  // namespace
}  // namespace vantrel
