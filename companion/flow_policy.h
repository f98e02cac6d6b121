#pragma once

#include <memory>
#include <vector>

#include "companion/priority.h"
#include "companion/quotas.h"
#include "companion/rate_limiter.h"

namespace vantrel {

// How a flow is treated beside others. Limits may be shared with other flows,
// also of other links; a flow obeys all that it has.
struct flow_policy_t {
  Priority priority = Priority::kNormal;
  std::vector<std::shared_ptr<RateLimiter>> limits_to_device;
  std::vector<std::shared_ptr<RateLimiter>> limits_from_device;
  std::vector<std::shared_ptr<QuotaCount>> quotas;  // both ways
};

}  // namespace vantrel
