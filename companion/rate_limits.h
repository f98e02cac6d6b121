#pragma once

#include <stddef.h>

#include <algorithm>
#include <functional>
#include <list>
#include <memory>
#include <vector>

#include "companion/rate_limiter.h"
#include "support/steady_time.h"

namespace vantrel {

// All limiters that one flow has to pass in one direction. The functions do for
// each of them what RateLimiter::User has under that name.
class RateLimits {
 public:
  void Set(const std::vector<std::shared_ptr<RateLimiter>>& limiters,
           const std::function<void()>& on_grant) {
    users_.reset();
    if (limiters.empty()) return;
    users_ = std::make_unique<Users>();
    for (const auto& limiter : limiters) {
      users_->emplace_back(limiter, on_grant);
    }
  }
  void Clear() { users_.reset(); }
  bool IsEmpty() const { return users_ == nullptr; }
  // Waits for one after the other.
  [[nodiscard]] bool MaySend() {
    if (IsEmpty()) return true;
    const SteadyTime now = GetSteadyTime();
    return std::all_of(users_->begin(), users_->end(),
                       [now](auto& user) { return user.MaySend(now); });
  }
  // The least of |most| and what each allows.
  size_t GetAllowance(size_t most) const {
    if (IsEmpty()) return most;
    for (const auto& user : *users_) most = std::min(most, user.GetAllowance());
    return most;
  }
  void Charge(size_t bytes) {
    if (IsEmpty()) return;
    for (auto& user : *users_) user.Charge(bytes);
  }
  void Rest() {
    if (IsEmpty()) return;
    for (auto& user : *users_) user.Rest();
  }

 private:
  using Users = std::list<RateLimiter::User>;
  std::unique_ptr<Users> users_;  // null: most flows have no limit
};

}  // namespace vantrel
