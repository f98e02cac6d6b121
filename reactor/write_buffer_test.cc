#include "reactor/write_buffer.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <sys/time.h>

#include <vector>

#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;

void MakeNonBlocking(const Socket& socket) {
  fcntl(socket.GetFd(), F_SETFL, O_NONBLOCK);
}

// A socket that keeps packet boundaries shows what each write was given.
TEST(WriteBufferTest, CutsWritesToTheLimit) {
  const struct {
    const char* name;
    uint16_t limit;
    size_t size;
    std::vector<size_t> writes;
  } cases[] = {
      {"no limit", 0, 70000, {70000}},
      {"full chunks and a rest", 512, 1200, {512, 512, 176}},
      {"highest uncut remainder", 40000, 65535, {40000, 25535}},
      {"cut remainder of 0", 40000, 65536, {40000, 25536}},
      {"cut remainder of 1", 40000, 65537, {1, 40000, 25536}},
      {"cut remainder of 1 twice", 65535, 131073, {1, 65535, 1, 65535, 1}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto [fd, peer] = MakeSocketPair(SOCK_SEQPACKET);
    const Socket socket(fd);
    WriteBuffer buffer;
    buffer.SetMaxWriteSize(c.limit);
    buffer.Append(std::string(c.size, 'a'));
    MakeNonBlocking(socket);
    ASSERT_TRUE(buffer.Drain(socket));
    std::vector<char> packet(c.size);
    std::vector<size_t> writes;
    int count;
    while ((count = peer->Read(packet.data(), packet.size())) > 0) {
      writes.push_back(static_cast<size_t>(count));
    }
    EXPECT_EQ(c.writes, writes);
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(c.size, buffer.GetTotalWrittenByteCount());
  }
}

TEST(WriteBufferTest, KeepsWhatTheSocketDoesNotTake) {
  auto [fd, peer] = MakeSocketPair();
  const Socket socket(fd);
  MakeNonBlocking(socket);
  WriteBuffer buffer;
  std::string expected;
  for (const char letter : std::string("abcdefgh")) {
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

TEST(WriteBufferTest, AHardErrorIsLoggedAndLeavesTheQueue) {
  signal(SIGPIPE, SIG_IGN);
  LogCapture log;
  auto [fd, peer] = MakeSocketPair();
  const Socket socket(fd);
  WriteBuffer buffer;
  EXPECT_TRUE(buffer.Drain(Socket())) << "nothing queued, nothing written";
  peer.reset();
  buffer.Append("lost");
  EXPECT_FALSE(buffer.Drain(socket));
  EXPECT_EQ(1u, buffer.GetQueuedItemCount());
  EXPECT_EQ(4u, buffer.GetQueuedByteCount());
  EXPECT_EQ(0u, buffer.GetTotalWrittenByteCount());
  EXPECT_THAT(log.Take(),
              ElementsAre("W: Error writing to socket: Broken pipe"));
}

int interrupting_fd = -1;

// The byte comes from the handler of the signal that interrupts the read.
TEST(SocketTest, ReadsPastInterruptions) {
  auto [fd, peer] = MakeSocketPair();
  const Socket socket(fd);
  interrupting_fd = peer->GetFd();
  struct sigaction action = {};
  action.sa_handler = [](int) { EXPECT_EQ(1, write(interrupting_fd, "x", 1)); };
  sigaction(SIGALRM, &action, nullptr);
  const itimerval soon = {{0, 0}, {0, 20000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
  char byte = 0;
  EXPECT_EQ(1, socket.Read(&byte, 1));
  EXPECT_EQ('x', byte);
}

}  // namespace
}  // namespace vantrel
