#include "companion/rate_limiter.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>

namespace vantrel {
namespace {

using std::chrono::milliseconds;

// Sends as much as it may, in messages of |size|.
class Sender {
 public:
  Sender(const std::shared_ptr<RateLimiter>& limiter, const SteadyTime& now,
         size_t size)
      : now_(now), size_(size), user_(limiter, [this] { Send(); }) {}
  void Send() {
    while (left > 0 && user_.MaySend(now_)) {
      user_.Charge(size_);
      sent += size_;
      left -= static_cast<int64_t>(size_);
    }
    if (left <= 0) user_.Rest();
  }
  size_t sent = 0;
  int64_t left = int64_t{1} << 40;

 private:
  const SteadyTime& now_;
  const size_t size_;
  RateLimiter::User user_;
};

class RateLimiterTest : public ::testing::Test {
 protected:
  std::shared_ptr<RateLimiter> Make(uint64_t rate, uint64_t burst) {
    return std::make_shared<RateLimiter>(loop_, rate, burst);
  }
  // The loop does not run: this is its timer, with a clock of its own.
  void Pass(RateLimiter* limiter, int ms) {
    for (int i = 0; i < ms; i += 5) {
      now_ += milliseconds(5);
      limiter->OnTime(now_);
    }
  }

  asio::io_context loop_{1};
  SteadyTime now_{};
};

// Whatever the rate and the size of what they send.
TEST_F(RateLimiterTest, KeepsItsRateAndSharesItByBytes) {
  for (const uint64_t rate : {2000u, 100'000u, 50'000'000u}) {
    const auto limiter = Make(rate, 0);
    Sender small(limiter, now_, 40), large(limiter, now_, 400);
    Sender huge(limiter, now_, 6'000);
    small.Send();
    large.Send();
    huge.Send();
    const size_t first = small.sent + large.sent + huge.sent;
    Pass(limiter.get(), 30'000);
    const double sent =
        static_cast<double>(small.sent + large.sent + huge.sent - first);
    const double expected = 30. * static_cast<double>(rate);
    EXPECT_NEAR(expected, sent, expected / 50 + 6'000) << rate;
    EXPECT_NEAR(sent / 3, static_cast<double>(small.sent), sent / 8) << rate;
    EXPECT_NEAR(sent / 3, static_cast<double>(large.sent), sent / 8) << rate;
    EXPECT_EQ(3u, limiter->GetWaitingCount());
  }
}

// A pause gives as much as the burst, and what one does not need or still owes
// when it goes is the others'.
TEST_F(RateLimiterTest, BearsABurstAndLosesNothing) {
  const auto limiter = Make(100'000, 50'000);
  now_ += milliseconds(5000);
  Sender one(limiter, now_, 1000);
  one.left = 10'500;
  one.Send();
  EXPECT_EQ(11'000u, one.sent);
  {
    Sender other(limiter, now_, 60'000);
    other.Send();
    EXPECT_EQ(60'000u, other.sent);
  }
  EXPECT_FALSE(limiter->HasTokens(now_ + milliseconds(209)));
  EXPECT_TRUE(limiter->HasTokens(now_ + milliseconds(211)));
  one.left = int64_t{1} << 40;
  one.Send();
  EXPECT_EQ(11'000u, one.sent);
  Pass(limiter.get(), 1210);
  EXPECT_NEAR(111'000, static_cast<double>(one.sent), 3000);
}

// The limiter, too, when it was the last that used it.
TEST_F(RateLimiterTest, AUserMayGoWhenItIsWoken) {
  std::deque<RateLimiter::User> users;
  std::weak_ptr<RateLimiter> limiter;
  {
    const auto made = Make(1000, 0);
    limiter = made;
    for (int i = 0; i < 3; ++i) {
      users.emplace_back(made, [&] { users.clear(); });
      while (users.back().MaySend(now_)) users.back().Charge(100);
    }
  }
  limiter.lock().get()->OnTime(now_ + std::chrono::seconds(9));
  EXPECT_TRUE(users.empty());
  EXPECT_TRUE(limiter.expired());
}

}  // namespace
}  // namespace vantrel
