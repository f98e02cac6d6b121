#include "companion/rate_limiter.h"

#include <assert.h>

#include <algorithm>
#include <chrono>

namespace vantrel {
namespace {

// A turn is short enough that others do not wait for long, and long enough that
// headers and turns of the loop do not weigh.
constexpr double kGrantSeconds = .02;
constexpr double kMinGrant = 512;
constexpr double kMaxGrant = 16384;
// Above some rate a grant is used up in no time: then several are given at
// once, so often.
constexpr double kWakeSeconds = .005;

}  // namespace

bool RateLimiter::User::MaySend(SteadyTime now) {
  if (allowance_ > 0) return true;
  if (waits_at_) return false;
  const bool is_first = limiter_->waiting_.empty();
  while (is_first && allowance_ <= 0 && limiter_->HasTokens(now)) {
    limiter_->Grant(this);
  }
  if (allowance_ > 0) return true;
  limiter_->Enqueue(this);
  if (is_first) limiter_->WaitForTokens(now);
  return false;
}

void RateLimiter::User::Rest() {
  if (waits_at_) limiter_->waiting_.erase(*waits_at_);
  waits_at_.reset();
  limiter_->tokens_ += static_cast<double>(allowance_);
  allowance_ = 0;
}

RateLimiter::RateLimiter(asio::io_context& loop, uint64_t bytes_per_second,
                         uint64_t burst_bytes)
    : rate_(bytes_per_second),
      grant_(std::clamp(static_cast<double>(rate_) * kGrantSeconds, kMinGrant,
                        kMaxGrant)),
      burst_(std::max({static_cast<double>(burst_bytes), grant_,
                       2 * static_cast<double>(rate_) * kWakeSeconds})),
      tokens_(burst_),
      timer_(loop, [this] { OnTime(GetSteadyTime()); }) {
  assert(bytes_per_second > 0);
}

bool RateLimiter::HasTokens(SteadyTime now) {
  Refill(now);
  return tokens_ > 0;
}

void RateLimiter::Refill(SteadyTime now) {
  if (refilled_) {
    const std::chrono::duration<double> elapsed = now - *refilled_;
    tokens_ += elapsed.count() * static_cast<double>(rate_);
  }
  tokens_ = std::min(tokens_, burst_);
  refilled_ = now;
}

void RateLimiter::Grant(User* user) {
  tokens_ -= grant_;
  user->allowance_ += static_cast<int64_t>(grant_);
}

void RateLimiter::Enqueue(User* user) {
  user->waits_at_ = waiting_.insert(waiting_.end(), user);
}

void RateLimiter::WaitForTokens(SteadyTime now) {
  const double wanted = static_cast<double>(rate_) * kWakeSeconds;
  const std::chrono::duration<double> time(std::max(wanted - tokens_, 0.) /
                                           static_cast<double>(rate_));
  timer_.WaitUntil(now + std::chrono::ceil<SteadyTime::duration>(time));
}

void RateLimiter::OnTime(SteadyTime now) {
  // The last of those that use it may go meanwhile.
  const auto self = shared_from_this();
  Refill(now);
  while (!waiting_.empty() && tokens_ > 0) {
    User* const user = waiting_.front();
    waiting_.pop_front();
    user->waits_at_.reset();
    Grant(user);
    if (user->allowance_ <= 0) {
      Enqueue(user);
      continue;
    }
    const auto on_grant = user->on_grant_;
    on_grant();
  }
  if (!waiting_.empty()) WaitForTokens(now);
}

}  // namespace vantrel
