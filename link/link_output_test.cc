#include "link/link_output.h"

#include <gmock/gmock.h>

#include "common/monotonic_clock.h"
#include "platform/linux/log_capture.h"
#include "reactor/reactor_testing.h"

namespace vantrel {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class LinkOutputTest : public ::testing::Test {
 protected:
  ~LinkOutputTest() override { SetMonotonicClockLead(0); }

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

TEST_F(LinkOutputTest, HasRoomForDatagramsUpToOneMebibyte) {
  output_.Append(std::string(1 << 20, 'x'));
  EXPECT_TRUE(output_.HasRoomForDatagram());
  output_.Append("x");
  EXPECT_FALSE(output_.HasRoomForDatagram());
  EXPECT_FALSE(output_.HasRoomForDatagram());
  const char* const line =
      "W: [B] Dropping datagrams: 1048577 bytes wait for the link.";
  EXPECT_THAT(log_.Take(), ElementsAre(line)) << "once a second";
  SetMonotonicClockLead(2);
  EXPECT_FALSE(output_.HasRoomForDatagram());
  EXPECT_THAT(log_.Take(), ElementsAre(line));
}

}  // namespace
}  // namespace vantrel
