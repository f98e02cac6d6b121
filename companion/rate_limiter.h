#pragma once

#include <stddef.h>
#include <stdint.h>

#include <asio/io_context.hpp>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <utility>

#include "support/steady_time.h"
#include "support/timer.h"

namespace vantrel {

// So many bytes per second for all that share it, be they flows of one
// application or of several links: a token bucket. Whoever finds it empty waits
// in a queue for a grant of some bytes, and then has its turn again behind
// the others, so that they share by bytes. One timer wakes the first of them.
class RateLimiter : public std::enable_shared_from_this<RateLimiter> {
 public:
  // One flow's part of the limiter.
  class User {
   public:
    // |on_grant| tells that MaySend() is worth another try. It may destroy the
    // user.
    User(std::shared_ptr<RateLimiter> limiter, std::function<void()> on_grant)
        : limiter_(std::move(limiter)), on_grant_(std::move(on_grant)) {}
    User(const User&) = delete;
    User& operator=(const User&) = delete;
    ~User() { Rest(); }

    // Whether it may send now. If not, it waits from now on.
    [[nodiscard]] bool MaySend(SteadyTime now);
    // How much it should send at most. More makes a debt.
    size_t GetAllowance() const {
      return allowance_ > 0 ? static_cast<size_t>(allowance_) : 0;
    }
    // It has sent |bytes|.
    void Charge(size_t bytes) { allowance_ -= static_cast<int64_t>(bytes); }
    // It has nothing to send: what it was granted, or owes, is the others'.
    void Rest();

   private:
    friend class RateLimiter;
    const std::shared_ptr<RateLimiter> limiter_;
    const std::function<void()> on_grant_;
    int64_t allowance_ = 0;
    std::optional<std::list<User*>::iterator> waits_at_;
  };

  // |bytes_per_second| is not 0. |burst_bytes| is what may go at once after a
  // pause; so little that it would cost too many turns counts as more. |loop|
  // outlives it. To be made by std::make_shared.
  RateLimiter(asio::io_context& loop, uint64_t bytes_per_second,
              uint64_t burst_bytes);
  RateLimiter(const RateLimiter&) = delete;
  RateLimiter& operator=(const RateLimiter&) = delete;

  // For those who do not wait, but drop what may not go now.
  [[nodiscard]] bool HasTokens(SteadyTime now);
  void Take(size_t bytes) { tokens_ -= static_cast<double>(bytes); }

  // What the timer calls.
  void OnTime(SteadyTime now);
  uint64_t GetRate() const { return rate_; }  // bytes per second
  size_t GetWaitingCount() const { return waiting_.size(); }

 private:
  void Refill(SteadyTime now);
  void Grant(User* user);
  void Enqueue(User* user);
  void WaitForTokens(SteadyTime now);

  const uint64_t rate_;
  const double grant_;  // bytes of one turn
  const double burst_;
  double tokens_;  // bytes; below 0 after a grant that was not covered
  std::optional<SteadyTime> refilled_;
  std::list<User*> waiting_;
  Timer timer_;
};

}  // namespace vantrel
