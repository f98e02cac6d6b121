#include "companion/flow_scheduler.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <string>

namespace vantrel {
namespace {

// A flow whose messages are runs of its letter.
class Source : public FlowScheduler::Flow {
 public:
  Source(char letter, size_t bytes) : letter_(letter), left_(bytes) {}
  void Add(size_t bytes) { left_ += bytes; }
  bool TakeMessage(size_t max_payload, std::string* out) override {
    const size_t length = std::min(left_, max_payload);
    out->append(length, letter_);
    left_ -= length;
    return length > 0;
  }

 private:
  const char letter_;
  size_t left_;
};

double Count(const std::string& text, char letter) {
  return static_cast<double>(std::count(text.begin(), text.end(), letter));
}

class FlowSchedulerTest : public ::testing::Test {
 protected:
  FlowSchedulerTest() { scheduler_.SetQuantum(10); }

  // The next |count| messages.
  std::string Take(int count) {
    std::string out;
    for (int i = 0; i < count && scheduler_.Take(&out); ++i) {
    }
    return out;
  }

  FlowScheduler scheduler_;
};

// Streams and datagrams alike, however large their messages are.
TEST_F(FlowSchedulerTest, SharesTheLinkByBytesNotByMessages) {
  Source a('a', 1000), b('b', 1000);
  FlowScheduler::QueuedFlow small, large;
  scheduler_.Activate(&a);
  scheduler_.Activate(&b);
  for (int i = 0; i < 500; ++i) scheduler_.Queue(&small, "s");
  for (int i = 0; i < 20; ++i) scheduler_.Queue(&large, std::string(25, 'l'));
  std::string sent;
  while (sent.size() < 800) ASSERT_TRUE(scheduler_.Take(&sent));
  for (const char letter : {'a', 'b', 's', 'l'}) {
    EXPECT_NEAR(200, Count(sent, letter), 25) << letter;
  }
  scheduler_.Remove(&small);
  scheduler_.Remove(&large);
  EXPECT_EQ(0u, scheduler_.GetQueuedBytes());
  EXPECT_THAT(Take(10), ::testing::MatchesRegex("[ab]+"));
}

TEST_F(FlowSchedulerTest, ServesSparseFlowsFirstButNotForEver) {
  Source bulk('B', 1000), other('O', 1000), sparse('s', 3);
  scheduler_.Activate(&bulk);
  scheduler_.Activate(&other);
  Take(10);  // both have used what a new flow has
  scheduler_.Activate(&sparse);
  EXPECT_EQ("sss", Take(1));
  // It has come back at once: it waits for its turn, as the others do.
  EXPECT_THAT(Take(1), ::testing::MatchesRegex("B+|O+"));
  sparse.Add(1000);
  scheduler_.Activate(&sparse);
  const std::string sent = Take(12);
  EXPECT_NEAR(40, Count(sent, 's'), 10);

  *scheduler_.GetControl() += "control";
  EXPECT_EQ("control", Take(1));
}

TEST_F(FlowSchedulerTest, DropsTheOldestOfTheFullestFlow) {
  scheduler_.SetQueueLimit(100);
  FlowScheduler::QueuedFlow flood, look_up;
  scheduler_.Queue(&look_up, "look-up");
  for (char c = 'a'; c <= 'z'; ++c) scheduler_.Queue(&flood, std::string(9, c));
  EXPECT_EQ(16u, scheduler_.GetDropCount());
  EXPECT_EQ(97u, scheduler_.GetQueuedBytes());
  EXPECT_EQ("look-up" + std::string(9, 'q'), Take(2));
  // A message that is larger than all that may wait waits alone.
  scheduler_.Queue(&flood, std::string(500, 'X'));
  EXPECT_EQ(std::string(500, 'X'), Take(1));
  EXPECT_EQ("", Take(1));
}

TEST_F(FlowSchedulerTest, AFlowMayGoWhenItIsAsked) {
  class Leaving : public Source {
   public:
    Leaving(FlowScheduler& scheduler, bool* is_gone)
        : Source('x', 0), scheduler_(scheduler), is_gone_(is_gone) {}
    ~Leaving() override { *is_gone_ = true; }
    bool TakeMessage(size_t, std::string*) override {
      scheduler_.Remove(this);
      delete this;
      return false;
    }

   private:
    FlowScheduler& scheduler_;
    bool* const is_gone_;
  };
  Source other('o', 10);
  bool is_gone = false;
  scheduler_.Activate(new Leaving(scheduler_, &is_gone));
  scheduler_.Activate(&other);
  EXPECT_EQ("oooooooooo", Take(3));
  EXPECT_TRUE(is_gone);
}

}  // namespace
}  // namespace vantrel
