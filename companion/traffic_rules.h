#pragma once

#include <stddef.h>
#include <stdint.h>

#include <asio/io_context.hpp>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "common/host_and_port.h"
#include "companion/flow_policy.h"
#include "companion/link_peer.h"
#include "companion/quota_file.h"
#include "companion/quotas.h"
#include "companion/rate_limiter.h"
#include "companion/rule_match.h"
#include "companion/rules.h"
#include "companion/rules_settings.h"
#include "support/timer.h"

namespace vantrel {

// What the rules say of a stream or of a flow of datagrams.
struct verdict_t {
  // By what it is denied, for the log; empty: it is allowed.
  std::string denial;
  bool is_over_quota = false;  // why; that ends with the day or month
  flow_policy_t policy;
};

// Whose a stream is.
struct flow_owner_t {
  std::optional<uint32_t> uid;           // none: not known; nor is |package|
  const std::string* package = nullptr;  // null: not told yet; empty: none
};

// The rules in force, with what belongs to their limits and quotas, for all
// links.
class TrafficRules {
 public:
  // |loop| and |settings| outlive this. |on_change| is called from the loop
  // some time after GetEdition() has changed: what was judged before is to be
  // judged again.
  TrafficRules(asio::io_context& loop, const rules_settings_t& settings,
               std::function<void()> on_change);
  TrafficRules(const TrafficRules&) = delete;
  TrafficRules& operator=(const TrafficRules&) = delete;

  // Reads the rules for the first time, or again. False when they are wrong,
  // which is logged; those before stay in force then.
  [[nodiscard]] bool Read();

  // Never 0. As long as it stays the same, so does what Judge() says of the
  // same, but that quotas begin anew.
  uint32_t GetEdition() const { return edition_; }
  // None: it depends on the name of the package, which is not told yet.
  std::optional<verdict_t> Judge(const link_peer_t& peer,
                                 const flow_owner_t& owner,
                                 const HostAndPort& remote,
                                 Transport transport);

 private:
  // The place of a limit in the file; whose device, whose application.
  using LimiterKey = std::tuple<size_t, std::string, uint32_t>;
  struct limiters_t {
    std::shared_ptr<RateLimiter> down;  // null: no limit
    std::shared_ptr<RateLimiter> up;
  };

  static void LogWarnings(const std::vector<std::string>& warnings);
  verdict_t Apply(const rule_t& rule, const std::string& device, uint32_t uid);
  const limiters_t& GetLimiters(size_t limit, const std::string& device,
                                uint32_t uid);
  void ForgetUnusedLimiters();
  void LoadQuotas();
  void OnChange();

  asio::io_context& loop_;
  const rules_settings_t& settings_;
  rules_t rules_;
  uint32_t edition_ = 1;
  std::map<LimiterKey, limiters_t> limiters_;
  bool is_loaded_ = false;   // |quota_file_|
  size_t max_limiters_ = 0;  // until those that nobody uses are forgotten
  Quotas quotas_;
  QuotaFile quota_file_;
  Timer change_;
};

}  // namespace vantrel
