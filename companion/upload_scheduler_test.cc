#include "companion/upload_scheduler.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <numeric>
#include <utility>
#include <vector>

#include "support/lifetime.h"

namespace vantrel {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr size_t kWrite = 4096;
constexpr size_t kCredit = UploadScheduler::Flow::kCredit;

// A device whose streams write whenever they have credit, on a link with a rate
// and a delay, by a clock of its own. The remotes take everything at once.
class UploadSchedulerTest : public ::testing::Test {
 protected:
  class Stream : public UploadScheduler::Flow::Owner {
   public:
    // It writes |pause| after it has got the credit for that.
    Stream(UploadSchedulerTest& test, UploadScheduler::Group& group,
           milliseconds pause)
        : flow(test.scheduler_, group, *this), test_(test), pause_(pause) {
      GetCredit(kCredit, milliseconds(0));
    }

    void OnAcknowledge(size_t count) override {
      GetCredit(count, test_.delay_);
    }

    double arrived = 0;  // bytes
    UploadScheduler::Flow flow;

   private:
    void GetCredit(size_t count, milliseconds delay) {
      for (; count > 0; --count) {
        test_.After(delay + pause_, alive_.MakeHandler([this] {
          test_.Transmit(alive_.MakeHandler([this] { Arrive(); }));
        }));
      }
    }
    void Arrive() {
      arrived += kWrite;
      flow.OnWrite(kWrite, test_.now_);
      const size_t before = flow.GetUnacknowledgedCount();
      flow.OnDelivered(1, test_.now_);
      if (flow.GetUnacknowledgedCount() == before) ++test_.held_;
    }

    UploadSchedulerTest& test_;
    const milliseconds pause_;
    const Lifetime alive_;
  };

  UploadSchedulerTest() : scheduler_(loop_, [] {}) {}

  void After(SteadyTime::duration time, std::function<void()> work) {
    events_.emplace(now_ + time, std::move(work));
  }
  void Transmit(std::function<void()> on_arrival) {
    free_at_ =
        std::max(free_at_, now_) +
        std::chrono::nanoseconds(int64_t{kWrite} * 1'000'000'000 / rate_);
    events_.emplace(free_at_ + delay_, std::move(on_arrival));
  }
  void Pass(SteadyTime::duration time) {
    const SteadyTime end = now_ + time;
    After(time, [] {});
    while (now_ < end) {
      const auto next = events_.begin();
      now_ = next->first;
      const auto work = std::move(next->second);
      events_.erase(next);
      work();
      if (now_ >= timer_) {
        scheduler_.OnTime(now_);
        timer_ = now_ + milliseconds(50);
      }
    }
  }
  void Add(std::list<Stream>* streams, int count, UploadScheduler::Group* group,
           milliseconds pause = milliseconds(0)) {
    for (int i = 0; i < count; ++i) streams->emplace_back(*this, *group, pause);
  }
  // What each of |applications| moves in |time|, of what the link carries.
  std::vector<double> Measure(
      const std::vector<const std::list<Stream>*>& applications, seconds time) {
    const auto count = [](const std::list<Stream>& streams) {
      return std::accumulate(
          streams.begin(), streams.end(), 0.,
          [](double sum, const Stream& one) { return sum + one.arrived; });
    };
    std::vector<double> shares;
    for (const auto* streams : applications) shares.push_back(-count(*streams));
    Pass(time);
    for (size_t i = 0; i < shares.size(); ++i) {
      shares[i] += count(*applications[i]);
      shares[i] /= static_cast<double>(rate_ * time.count());
    }
    return shares;
  }

  asio::io_context loop_{1};
  SteadyTime now_{seconds(1000)};
  SteadyTime timer_{};
  UploadScheduler scheduler_;
  UploadScheduler::Group a_{Priority::kNormal}, b_{Priority::kNormal};
  int64_t rate_ = 250'000;  // bytes per second
  milliseconds delay_{30};  // each way
  size_t held_ = 0;         // writes that were not acknowledged at once
  SteadyTime free_at_{};
  std::multimap<SteadyTime, std::function<void()>> events_;
};

// On a slow link each has nearly a half. On a fast and long one a stream has
// what its credit allows, as it has alone, and the others have the rest.
TEST_F(UploadSchedulerTest, SharesTheLinkBetweenApplicationsAndKeepsItFull) {
  struct expected_t {
    int64_t rate;
    milliseconds delay;
    double of_many, of_one, of_all;
  };
  for (const expected_t& expected :
       {expected_t{100'000, milliseconds(10), .62, .40, .98},
        expected_t{250'000, milliseconds(30), .60, .40, .99},
        expected_t{2'000'000, milliseconds(30), .80, .20, .99},
        expected_t{5'000'000, milliseconds(1), .72, .28, .99}}) {
    rate_ = expected.rate;
    delay_ = expected.delay;
    events_.clear();
    free_at_ = now_ += seconds(100);
    held_ = 0;
    std::list<Stream> many, one;
    Add(&many, 8, &a_);
    EXPECT_GT(Measure({&many}, seconds(10))[0], .98);
    EXPECT_EQ(0u, held_);
    Add(&one, 1, &b_);
    Pass(seconds(10));
    const auto shares = Measure({&many, &one}, seconds(20));
    EXPECT_LT(shares[0], expected.of_many) << rate_;
    EXPECT_GT(shares[1], expected.of_one) << rate_;
    EXPECT_GT(shares[0] + shares[1], expected.of_all) << rate_;
    one.clear();
    Pass(seconds(5));
    EXPECT_GT(Measure({&many}, seconds(10))[0], .98);
  }
}

// One that writes now and then, or that has had enough, holds nobody back.
TEST_F(UploadSchedulerTest, HoldsNothingBackForThoseThatWantLittle) {
  std::list<Stream> many, few, idle;
  Add(&idle, 20, &a_, milliseconds(600'000));
  Add(&many, 8, &a_);
  Add(&few, 4, &b_, milliseconds(8'000));
  Pass(seconds(20));
  held_ = 0;
  EXPECT_GT(Measure({&many, &few}, seconds(40))[0], .9);
  EXPECT_EQ(0u, held_);
}

TEST_F(UploadSchedulerTest, LowPriorityHasWhatOthersLeave) {
  UploadScheduler::Group low(Priority::kLow);
  std::list<Stream> background, one;
  Add(&background, 4, &low);
  Pass(seconds(5));
  Add(&one, 1, &a_);
  Pass(seconds(10));
  const auto shares = Measure({&background, &one}, seconds(60));
  EXPECT_NEAR(.01, shares[0], .005);
  EXPECT_GT(shares[1], .98);
  one.clear();
  Pass(seconds(5));
  EXPECT_GT(Measure({&background}, seconds(10))[0], .98);
}

// What came above the credit that a new stream has comes at the limit's rate,
// and a stream that ends pays for what was not acknowledged.
TEST_F(UploadSchedulerTest, ObeysLimits) {
  const auto limiter = std::make_shared<RateLimiter>(loop_, 10'000, 0);
  std::list<Stream> streams;
  Add(&streams, 2, &a_);
  for (Stream& stream : streams) stream.flow.SetLimits({limiter}, [] {});
  Pass(milliseconds(500));
  for (Stream& stream : streams) EXPECT_LE(8 * kWrite, stream.arrived);
  EXPECT_LE(2u, limiter->GetWaitingCount());
  streams.clear();
  EXPECT_FALSE(limiter->HasTokens(GetSteadyTime() + seconds(5)));
  EXPECT_TRUE(limiter->HasTokens(GetSteadyTime() + seconds(8)));
}

}  // namespace
}  // namespace vantrel
