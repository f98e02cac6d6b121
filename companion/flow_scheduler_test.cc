#include "companion/flow_scheduler.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <list>
#include <string>

namespace vantrel {
namespace {

// A flow whose messages are runs of its letter.
class Source : public FlowScheduler::Flow {
 public:
  Source(FlowScheduler& scheduler, char letter, size_t bytes)
      : scheduler_(scheduler), letter_(letter), left_(bytes) {}
  ~Source() override { scheduler_.Remove(this); }
  void Add(size_t bytes) { left_ += bytes; }
  bool TakeMessage(size_t max_payload, std::string* out) override {
    const size_t length = std::min(left_, max_payload);
    out->append(length, letter_);
    left_ -= length;
    return length > 0;
  }

 private:
  FlowScheduler& scheduler_;
  const char letter_;
  size_t left_;
};

class Datagrams : public FlowScheduler::QueuedFlow {
 public:
  explicit Datagrams(FlowScheduler& scheduler) : scheduler_(scheduler) {}
  ~Datagrams() override { scheduler_.Remove(this); }

 private:
  void OnTaken(const message_t&) override {}
  void OnDropped(const message_t&) override {}

  FlowScheduler& scheduler_;
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
    for (int i = 0; i < count && scheduler_.Take(&out, now_); ++i) {
    }
    return out;
  }

  void Queue(FlowScheduler::QueuedFlow* flow, const std::string& message) {
    scheduler_.Queue(flow, &group_, {message, now_, message.size()});
  }

  FlowScheduler scheduler_;
  FlowScheduler::Group group_{Priority::kNormal};
  FlowScheduler::Group other_{Priority::kNormal};
  SteadyTime now_{};
};

// Streams and datagrams alike, however large their messages are.
TEST_F(FlowSchedulerTest, SharesTheLinkByBytesNotByMessages) {
  Source a(scheduler_, 'a', 1000), b(scheduler_, 'b', 1000);
  Datagrams small(scheduler_), large(scheduler_);
  scheduler_.Activate(&a, &group_);
  scheduler_.Activate(&b, &group_);
  for (int i = 0; i < 500; ++i) Queue(&small, "s");
  for (int i = 0; i < 20; ++i) Queue(&large, std::string(25, 'l'));
  std::string sent;
  while (sent.size() < 800) ASSERT_TRUE(scheduler_.Take(&sent, now_));
  for (const char letter : {'a', 'b', 's', 'l'}) {
    EXPECT_NEAR(200, Count(sent, letter), 25) << letter;
  }
  scheduler_.Remove(&small);
  scheduler_.Remove(&large);
  EXPECT_EQ(0u, scheduler_.GetQueuedBytes());
  EXPECT_THAT(Take(10), ::testing::MatchesRegex("[ab]+"));
}

TEST_F(FlowSchedulerTest, ServesSparseFlowsFirstButNotForEver) {
  Source bulk(scheduler_, 'B', 1000), other(scheduler_, 'O', 1000);
  Source sparse(scheduler_, 's', 3);
  scheduler_.Activate(&bulk, &group_);
  scheduler_.Activate(&other, &group_);
  Take(10);  // both have used what a new flow has
  scheduler_.Activate(&sparse, &group_);
  EXPECT_EQ("sss", Take(1));
  // It has come back at once: it waits for its turn, as the others do.
  EXPECT_THAT(Take(1), ::testing::MatchesRegex("B+|O+"));
  sparse.Add(1000);
  scheduler_.Activate(&sparse, &group_);
  const std::string sent = Take(12);
  EXPECT_NEAR(40, Count(sent, 's'), 10);

  *scheduler_.GetControl() += "control";
  EXPECT_EQ("control", Take(1));
}

TEST_F(FlowSchedulerTest, SharesTheLinkBetweenGroupsFirst) {
  std::list<Source> many;
  for (int i = 0; i < 32; ++i) {
    scheduler_.Activate(&many.emplace_back(scheduler_, 'm', 100'000), &group_);
  }
  Source one(scheduler_, 'o', 100'000);
  Datagrams large(scheduler_);
  scheduler_.Activate(&one, &other_);
  for (int i = 0; i < 10; ++i) Queue(&large, std::string(25, 'L'));
  std::string sent = Take(400);
  EXPECT_NEAR(static_cast<double>(sent.size()) / 2, Count(sent, 'o'), 25);
  EXPECT_NEAR(60, Count(sent, 'L'), 25);  // one of 33

  // A new flow goes first, in the group of many, too.
  Source sparse(scheduler_, 's', 5);
  scheduler_.Activate(&sparse, &group_);
  EXPECT_EQ("sssss", Take(1));
  // But not one after the other, before everybody else.
  sent.clear();
  for (int i = 0; i < 200; ++i) {
    Source next(scheduler_, 'n', 10);
    scheduler_.Activate(&next, &group_);
    sent += Take(1);
  }
  EXPECT_NEAR(1000., Count(sent, 'o'), 20);

  // A flow that waited for something else is no new one.
  Source limited(scheduler_, 'l', 10);
  scheduler_.Resume(&limited, &other_);
  EXPECT_EQ(0., Count(Take(2), 'l'));
  EXPECT_EQ(10., Count(Take(3), 'l'));
  // It may change its group.
  scheduler_.Resume(&one, &group_);
  EXPECT_EQ(0u, Count(Take(32), 'o'));
}

// What is low has what others leave, and a hundredth at least.
TEST_F(FlowSchedulerTest, HigherPrioritiesGoFirstAndNobodyStarves) {
  FlowScheduler::Group high(Priority::kHigh), low(Priority::kLow);
  Source background(scheduler_, 'l', 1'000'000), h(scheduler_, 'h', 50'000);
  std::list<Source> normal;
  scheduler_.Activate(&background, &low);
  for (int i = 0; i < 8; ++i) {
    scheduler_.Activate(&normal.emplace_back(scheduler_, 'n', 10'000), &group_);
  }
  scheduler_.Activate(&h, &high);
  std::string sent = Take(5000);
  EXPECT_NEAR(500, Count(sent, 'l'), 20);
  EXPECT_NEAR(5000, Count(sent, 'n'), 20);
  sent = Take(4000);
  EXPECT_NEAR(400, Count(sent, 'l'), 100);
  EXPECT_GT(Count(sent, 'n'), 30'000);
  // The others have little left.
  EXPECT_NEAR(40'000, Count(Take(8000), 'l'), 2000);
  EXPECT_EQ(10., Count(Take(1), 'l'));
}

TEST_F(FlowSchedulerTest, DropsTheOldestOfTheFullestFlow) {
  scheduler_.SetQueueLimit(100);
  Datagrams flood(scheduler_), look_up(scheduler_);
  Queue(&look_up, "look-up");
  for (char c = 'a'; c <= 'z'; ++c) Queue(&flood, std::string(9, c));
  EXPECT_EQ(16u, scheduler_.GetDropCount());
  EXPECT_EQ(97u, scheduler_.GetQueuedBytes());
  EXPECT_EQ("look-up" + std::string(9, 'q'), Take(2));
  // A message that is larger than all that may wait waits alone.
  Queue(&flood, std::string(500, 'X'));
  EXPECT_EQ(std::string(500, 'X'), Take(1));
  EXPECT_EQ("", Take(1));

  // Many small ones are the fullest, too, when it is their number that counts.
  const uint64_t drops = scheduler_.GetDropCount();
  scheduler_.SetQueueLimit(1 << 20);
  Queue(&look_up, std::string(9000, 'L'));
  for (size_t i = 0; i < FlowScheduler::kMaxQueuedMessages; ++i) {
    Queue(&flood, "f");
  }
  EXPECT_EQ(drops + 513, scheduler_.GetDropCount());  // an eighth
  EXPECT_EQ(9000u + 3583, scheduler_.GetQueuedBytes());
}

// The link carries one message in 5 ms, and as many come.
TEST_F(FlowSchedulerTest, DropsFromAQueueThatStandsAndFromNoOther) {
  Datagrams standing(scheduler_), sparse(scheduler_);
  char next = 0;
  std::string sent;  // of each message its number
  const auto queue = [&] { Queue(&standing, std::string(1250, next++)); };
  const auto pass = [&](int count) {
    for (int i = 0; i < count; ++i) {
      now_ += std::chrono::milliseconds(5);
      sent += Take(1)[0];
    }
  };
  for (int i = 0; i < 18; ++i) queue();
  pass(18);
  EXPECT_EQ(0u, scheduler_.GetDropCount());  // a burst

  for (int i = 0; i < 10; ++i) queue();
  for (int i = 0; i < 80; ++i) {
    pass(1);
    queue();
  }
  // After 100, 200, 271, 329 and 379 ms. What came last is still there.
  EXPECT_EQ(5u, scheduler_.GetDropCount());
  EXPECT_EQ(5u * 1250, scheduler_.GetQueuedBytes());
  EXPECT_TRUE(std::is_sorted(sent.begin(), sent.end()));
  EXPECT_EQ(next - 5 - 1, sent.back());
  Queue(&sparse, "s");
  EXPECT_EQ("s", Take(1));
  scheduler_.Remove(&standing);
  EXPECT_EQ(5u, scheduler_.GetDropCount());
}

TEST_F(FlowSchedulerTest, AFlowMayGoWhenItIsAsked) {
  class Leaving : public Source {
   public:
    Leaving(FlowScheduler& scheduler, bool* is_gone)
        : Source(scheduler, 'x', 0), scheduler_(scheduler), is_gone_(is_gone) {}
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
  Source other(scheduler_, 'o', 10);
  bool is_gone = false;
  scheduler_.Activate(new Leaving(scheduler_, &is_gone), &group_);
  scheduler_.Activate(&other, &group_);
  EXPECT_EQ("oooooooooo", Take(3));
  EXPECT_TRUE(is_gone);
  // But not without a word.
  class Staying : public FlowScheduler::Flow {
    bool TakeMessage(size_t, std::string*) override { return false; }
  };
  const auto go_known = [this] {
    Staying flow;
    scheduler_.Activate(&flow, &group_);
  };
  EXPECT_DEATH(go_known(), "list_ == nullptr");
}

}  // namespace
}  // namespace vantrel
