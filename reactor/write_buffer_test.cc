#include "reactor/write_buffer.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <algorithm>
#include <deque>
#include <random>
#include <string>
#include <vector>

#include "common/seed_testing.h"
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

// The size of the next write, with |left| bytes of the oldest string.
size_t NextWrite(size_t left, size_t limit) {
  const size_t cut = left % 65536;
  return std::min(cut == 0 ? left : cut, limit);
}

// Strings come and go while the socket is full now and then: what arrives is
// what was queued, in writes as the rule for their size has them.
TEST(WriteBufferTest, QueuesAsTheModel) {
  const uint32_t first = FirstSeed();
  for (uint32_t seed = first; seed != first + 50; ++seed) {
    SCOPED_TRACE("VANTREL_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    const bool has_limit = random() % 2 == 0;
    const auto limit =
        static_cast<uint16_t>(has_limit ? 1 + random() % 65535 : 0);
    auto [fd, peer] = MakeSocketPair(has_limit ? SOCK_SEQPACKET : SOCK_STREAM);
    const Socket socket(fd);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    WriteBuffer buffer;
    buffer.SetMaxWriteSize(limit);
    std::deque<std::string> queue;
    size_t arrived = 0, queued = 0;
    const size_t sizes[] = {1, 100, 4096, 65535, 65536, 65537, 131073};
    for (int step = 0; step < 100 || !queue.empty(); ++step) {
      if (step < 100 && random() % 2 == 0) {
        const size_t size = sizes[random() % std::size(sizes)];
        queue.emplace_back(size, static_cast<char>(step));
        queued += size;
        buffer.Append(queue.back());
      }
      ASSERT_TRUE(buffer.Drain(socket));
      ASSERT_EQ(queued, buffer.GetTotalWrittenByteCount() +
                            buffer.GetQueuedByteCount());
      if (step < 100 && random() % 3 != 0) continue;
      std::string packet(200000, '\0');
      int count;
      while ((count = peer->Read(packet.data(), packet.size())) > 0) {
        arrived += static_cast<size_t>(count);
        size_t at = 0;
        if (has_limit) {
          ASSERT_EQ(NextWrite(queue.front().size(), limit),
                    static_cast<size_t>(count));
        }
        while (at < static_cast<size_t>(count)) {
          const size_t part =
              std::min(queue.front().size(), static_cast<size_t>(count) - at);
          ASSERT_EQ(0, packet.compare(at, part, queue.front(), 0, part));
          at += part;
          queue.front().erase(0, part);
          if (queue.front().empty()) queue.pop_front();
        }
      }
      ASSERT_EQ(arrived, buffer.GetTotalWrittenByteCount());
    }
    EXPECT_TRUE(buffer.IsEmpty());
  }
}

}  // namespace
}  // namespace vantrel
