#include "link/link_output.h"

#include <gmock/gmock.h>

#include <string>

#include "common/hex_testing.h"
#include "common/monotonic_clock_testing.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LinkOutputTest : public ::testing::Test {
 protected:
  ~LinkOutputTest() override { SetMonotonicClockLead(0); }

  // Until the link's socket takes no more; returns what it has taken.
  std::string FillSocket() {
    std::string taken;
    const std::string block(4096, 'f');
    int count;
    while ((count = link_.Write(block.data(), block.size())) > 0) {
      taken.append(block, 0, static_cast<size_t>(count));
    }
    return taken;
  }

  std::pair<int, std::unique_ptr<Socket>> pair_ = MakeSocketPair();
  Socket link_{pair_.first};
  StopCatcher stop_;
  LogCapture log_;
  Reactor reactor_;
  LinkOutput output_{link_, reactor_};
};

TEST_F(LinkOutputTest, GivesUpWhenNothingLeavesForFifteenSeconds) {
  output_.Append("a");
  for (const time_t seconds : {7, 14}) {
    SetMonotonicClockLead(seconds);
    output_.Append("b");
  }
  EXPECT_FALSE(stop_.TakeStop());
  output_.DrainAndRest(false);  // progress, and nothing is left
  SetMonotonicClockLead(100);
  output_.Append("c");
  SetMonotonicClockLead(115);
  EXPECT_THAT(log_.Take(), IsEmpty()) << "looked at only when one is queued";
  output_.Append("d");
  EXPECT_TRUE(stop_.TakeStop());
  EXPECT_THAT(log_.Take(),
              ElementsAre("E: [B] Terminating vantrel due to write timeout "
                          "(15s)."));
}

// Datagrams and streams each have a queue of their own in front of a link that
// takes nothing, and all leave in the order in which they came.
TEST_F(LinkOutputTest, DatagramsAndStreamsDoNotFillEachOthersQueue) {
  fcntl(link_.GetFd(), F_SETFL, O_NONBLOCK);
  std::string expected = FillSocket();
  const HostAndPort flood = Endpoint("C0A8A7EF", 40000);
  const HostAndPort look_up = Endpoint("C0A8A7EF", 40001);
  const auto send = [&](const HostAndPort& source, size_t bytes) {
    if (!output_.HasRoomForDatagram(source, bytes)) return false;
    expected += std::string(bytes, 'd');
    output_.QueueDatagram(source,
                          [&] { output_.Append(std::string(bytes, 'd')); });
    return true;
  };
  for (int i = 0; i < 15; ++i) {
    output_.Append(std::string(100000, 's'));
    expected += std::string(100000, 's');
  }
  size_t queued = 0;
  while (send(flood, 1000)) queued += 1000;
  EXPECT_GT(queued, 60000u);
  EXPECT_LE(queued, 65536u);
  EXPECT_FALSE(send(flood, 1000)) << "what is left is for others";
  EXPECT_TRUE(send(look_up, 100)) << "as for this one";
  EXPECT_FALSE(send(look_up, 1500));
  const std::string line =
      "W: [B] Dropping datagrams: " + std::to_string(queued) +
      " bytes wait for the link.";
  EXPECT_THAT(log_.Take(), ElementsAre(line)) << "once a second";
  EXPECT_FALSE(output_.IsCongested());
  output_.Append("s");
  expected += "s";
  EXPECT_TRUE(output_.IsCongested());

  std::string received;
  while (received.size() < expected.size()) {
    received += ReadAll(*pair_.second);
    output_.DrainAndRest(false);
  }
  EXPECT_FALSE(output_.IsCongested());
  EXPECT_TRUE(expected == received);
  // One that is larger than all the room goes when nothing waits.
  EXPECT_TRUE(send(flood, 65507));
  EXPECT_FALSE(stop_.TakeStop());
}

}  // namespace
}  // namespace vantrel
