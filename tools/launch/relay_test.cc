#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "tools/launch/relay_direction.h"

namespace vantrel {
namespace {

using std::chrono::milliseconds;

TEST(Shape, TakesEachPartAndRefusesTheRest) {
  std::string reason;
  const auto shape = ParseShape("rate=2.5Mbit,delay=30ms,chunk=990", &reason);
  ASSERT_TRUE(shape) << reason;
  EXPECT_EQ(2500000u, shape->bits_per_second);
  EXPECT_EQ(milliseconds(30), shape->delay);
  for (const char* text :
       {"rate", "rate=", "rate=0Mbit", "rate=-1Mbit", "rate=2", "delay=61s",
        "chunk=0", "chunk=65536", "speed=1", "rate=2Mbit,,", "rate=nan"}) {
    EXPECT_FALSE(ParseShape(text, &reason)) << text;
  }
}

TEST(Shaper, BytesAreDueWhenTheirChunkHasCrossedAndTheDelayLater) {
  // 8 kbit/s is one byte a millisecond.
  Shaper shaper({8000, milliseconds(30), 10});
  const SteadyTime start{};
  EXPECT_FALSE(shaper.GetNextTime());
  shaper.Enter(25, start);
  shaper.Enter(5, start + milliseconds(100));  // after an idle time
  const struct {
    int due_ms;
    size_t bytes;
  } chunks[] = {{40, 10}, {50, 10}, {55, 5}, {135, 5}};
  for (const auto& c : chunks) {
    EXPECT_EQ(start + milliseconds(c.due_ms), shaper.GetNextTime());
    EXPECT_EQ(0u, shaper.GetDueBytes(start + milliseconds(c.due_ms - 1)));
    EXPECT_EQ(c.bytes, shaper.GetDueBytes(start + milliseconds(c.due_ms)));
    shaper.Leave(1);  // the socket took only one
    EXPECT_EQ(c.bytes - 1, shaper.GetDueBytes(start + milliseconds(c.due_ms)));
    shaper.Leave(c.bytes - 1);
  }
  EXPECT_FALSE(shaper.GetNextTime());
}

// A relay between two socket pairs; the test holds the outer ends.
class RelayTest : public ::testing::Test {
 protected:
  void SetUp() override {
    MakePair(&source_, &from_);
    MakePair(&sink_, &to_);
  }

  static void MakePair(UniqueFd* outer, UniqueFd* inner) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds));
    outer->Reset(fds[0]);
    inner->Reset(fds[1]);
  }

  // Writes until source, relay and sink are full; what went in.
  std::string Fill(RelayDirection* relay) {
    std::string sent;
    for (int idle = 0; idle < 3; ++idle) {
      const std::string piece(7919, static_cast<char>('a' + sent.size() % 26));
      const ssize_t count = write(source_.Get(), piece.data(), piece.size());
      if (count > 0) {
        sent.append(piece, 0, static_cast<size_t>(count));
        idle = 0;
      }
      Turn(relay);
    }
    return sent;
  }

  static void Turn(RelayDirection* relay) {
    const SteadyTime now = std::chrono::steady_clock::now();
    if (relay->GetFdToRead() >= 0) relay->Read(now);
    if (relay->GetFdToWrite(now) >= 0) relay->Write(now);
  }

  // Reads to the end of the stream while the relay works.
  std::string Drain(RelayDirection* relay) {
    std::string got;
    char piece[5003];
    ssize_t count;
    while ((count = read(sink_.Get(), piece, sizeof(piece))) != 0) {
      if (count > 0) got.append(piece, static_cast<size_t>(count));
      Turn(relay);
    }
    return got;
  }

  UniqueFd source_, from_, to_, sink_;
};

TEST_F(RelayTest, HoldsABoundedNumberOfBytesAndDeliversAllOfThem) {
  std::string seen;
  const auto tap = [&seen](const std::string& bytes) { seen += bytes; };
  const RelayDirection::options_t cases[] = {
      {}, {{}, tap, nullptr}, {{}, nullptr, tap}};
  for (const auto& options : cases) {
    SetUp();
    seen.clear();
    RelayDirection relay(from_.Get(), to_.Get(), options);
    const std::string sent = Fill(&relay);
    EXPECT_EQ(-1, relay.GetFdToRead());
    shutdown(source_.Get(), SHUT_WR);
    EXPECT_EQ(sent, Drain(&relay));
    EXPECT_EQ(RelayDirection::kEnded, relay.GetState());
    EXPECT_EQ(sent.size(), relay.GetMovedByteCount());
    EXPECT_EQ(options.on_read || options.on_written ? sent : "", seen);
  }
}

}  // namespace
}  // namespace vantrel
