#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <optional>
#include <string>

#include "common/unique_fd.h"
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
  EXPECT_TRUE(ParseShape("rate=1Gbit,delay=536ms", &reason)) << reason;
  for (const char* text :
       {"rate=1Gbit,delay=537ms", "rate=1Gbit,delay=60ms,chunk=1", "rate",
        "rate=", "rate=0Mbit", "rate=-1Mbit", "rate=2", "delay=61s", "chunk=0",
        "chunk=65536", "speed=1", "rate=2Mbit,,", "rate=nan"}) {
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
    loop_.restart();
    relay_.reset();
    MakePair(&source_, &from_);
    MakePair(&sink_, &to_);
  }

  void MakePair(UniqueFd* outer, std::optional<Descriptor>* inner) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds));
    outer->Reset(fds[0]);
    inner->emplace(
        loop_, UniqueFd(fds[1]), [this] { relay_->OnReadable(); },
        [this] { relay_->OnWritable(); });
  }

  // Writes until source, relay and sink are full; what went in.
  std::string Fill() {
    std::string sent;
    for (int idle = 0; idle < 3; ++idle) {
      const std::string piece(7919, static_cast<char>('a' + sent.size() % 26));
      const ssize_t count = write(source_.Get(), piece.data(), piece.size());
      if (count > 0) {
        sent.append(piece, 0, static_cast<size_t>(count));
        idle = 0;
      }
      loop_.poll();
    }
    return sent;
  }

  // Reads to the end of the stream while the relay works.
  std::string Drain() {
    std::string got;
    char piece[5003];
    ssize_t count;
    while ((count = read(sink_.Get(), piece, sizeof(piece))) != 0) {
      if (count > 0) got.append(piece, static_cast<size_t>(count));
      loop_.poll();
    }
    return got;
  }

  asio::io_context loop_;
  UniqueFd source_, sink_;
  std::optional<Descriptor> from_, to_;
  std::optional<RelayDirection> relay_;
};

TEST_F(RelayTest, HoldsABoundedNumberOfBytesAndDeliversAllOfThem) {
  std::string seen;
  RelayDirection::options_t cases[3];
  cases[1].on_read =
      cases[2].on_written = [&seen](std::string_view bytes) { seen += bytes; };
  for (auto& options : cases) {
    SetUp();
    seen.clear();
    relay_.emplace(loop_, *from_, *to_, options, Duplicate(source_.Get()));
    relay_->Start();
    const std::string sent = Fill();
    // The queues before and behind it are counted: nobody has read yet.
    EXPECT_GT(16 * 1024u, sent.size());
    shutdown(source_.Get(), SHUT_WR);
    EXPECT_EQ(sent, Drain());
    EXPECT_EQ(RelayDirection::State::kEnded, relay_->GetState());
    EXPECT_EQ(sent.size(), relay_->GetMovedByteCount());
    EXPECT_EQ(options.on_read || options.on_written ? sent : "", seen);
  }
}

}  // namespace
}  // namespace vantrel
