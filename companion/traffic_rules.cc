#include "companion/traffic_rules.h"

#include <arpa/inet.h>
#include <time.h>

#include <algorithm>
#include <utility>

#include "common/uid.h"
#include "companion/companion_log.h"
#include "companion/rules_file.h"
#include "companion/rules_text.h"

namespace vantrel {
namespace {

// What may go at once after a pause, of a limit's bytes per second.
constexpr uint64_t kBurstsPerSecond = 10;
constexpr size_t kMinLimiters = 256;

void Log(LogLevel level, const std::string& line) {
  ProgramLog().Write(level, LogKind::kState, "%s", line.c_str());
}

std::shared_ptr<RateLimiter> MakeLimiter(asio::io_context& loop,
                                         uint64_t rate) {
  return std::make_shared<RateLimiter>(loop, rate, rate / kBurstsPerSecond);
}

std::string DescribeUse(const quota_t& quota) {
  return ": quota \"" + quota.name + "\" of the " +
         (quota.period == Period::kDay ? "day" : "month") + " is used up";
}

flow_facts_t ToFacts(const link_peer_t& peer, const flow_owner_t& owner,
                     const HostAndPort& remote, Transport transport,
                     bool is_metered) {
  flow_facts_t facts;
  facts.has_owner = owner.uid.has_value();
  facts.uid = owner.uid;
  if (owner.package != nullptr) facts.package = *owner.package;
  facts.device = peer.device;
  facts.link = peer.link;
  facts.address = ntohl(remote.host.GetAddrV4());
  facts.port = remote.port;
  facts.transport = transport;
  facts.is_metered = is_metered;
  return facts;
}

}  // namespace

TrafficRules::TrafficRules(asio::io_context& loop,
                           const rules_settings_t& settings,
                           std::function<void()> on_change)
    : loop_(loop),
      settings_(settings),
      quotas_({[] { return time(nullptr); }, [this] { quota_file_.OnChange(); },
               [this] { OnChange(); }}),
      quota_file_(loop, settings.quota_file, quotas_),
      change_(loop, std::move(on_change)) {}

bool TrafficRules::Read() {
  if (settings_.file.empty()) return true;
  rules_reading_t reading = ReadRulesFile(settings_.file);
  for (const std::string& error : reading.errors) {
    Log(LogLevel::kError, error);
  }
  if (!reading.errors.empty()) return false;
  LogWarnings(reading.warnings);
  rules_ = std::move(reading.rules);
  limiters_.clear();
  quotas_.Set(rules_.quotas);
  if (!rules_.quotas.empty()) LoadQuotas();
  Log(LogLevel::kInfo,
      std::to_string(rules_.rules.size()) + " rules of " + settings_.file);
  OnChange();
  return true;
}

void TrafficRules::LoadQuotas() {
  if (std::exchange(is_loaded_, true)) return;
  if (!settings_.quota_file.empty()) return quota_file_.Load();
  Log(LogLevel::kWarning,
      "quotas begin anew when the program does: see --quota-file");
}

// Of many alike one is enough here: --check-rules shows them all.
void TrafficRules::LogWarnings(const std::vector<std::string>& warnings) {
  if (warnings.empty()) return;
  const size_t others = warnings.size() - 1;
  Log(LogLevel::kWarning,
      warnings.front() + (others == 0 ? ""
                                      : ", and " + std::to_string(others) +
                                            " more: see --check-rules"));
}

void TrafficRules::OnChange() {
  if (++edition_ == 0) ++edition_;
  change_.WaitFor(SteadyTime::duration::zero());
}

std::optional<verdict_t> TrafficRules::Judge(const link_peer_t& peer,
                                             const flow_owner_t& owner,
                                             const HostAndPort& remote,
                                             Transport transport) {
  if (rules_.rules.empty()) return verdict_t();
  bool is_certain = false;
  const rule_t* const rule = FindRule(
      rules_, ToFacts(peer, owner, remote, transport, settings_.is_metered),
      &is_certain);
  if (!is_certain) return std::nullopt;
  if (rule == nullptr) return verdict_t();
  return Apply(*rule, peer.device, owner.uid.value_or(kNobodyUid));
}

verdict_t TrafficRules::Apply(const rule_t& rule, const std::string& device,
                              uint32_t uid) {
  verdict_t verdict;
  if (rule.denies) {
    verdict.denial = DescribeRuleName(rule);
    return verdict;
  }
  verdict.policy.priority = rule.priority;
  for (const size_t i : rule.quotas) {
    verdict.policy.quotas.push_back(quotas_.Get(rules_.quotas[i], device, uid));
    if (!verdict.policy.quotas.back()->IsUsedUp()) continue;
    verdict.is_over_quota = true;
    verdict.denial = DescribeRuleName(rule) + DescribeUse(rules_.quotas[i]);
    return verdict;
  }
  for (const size_t i : rule.limits) {
    const limiters_t& limiters = GetLimiters(i, device, uid);
    if (limiters.down) {
      verdict.policy.limits_to_device.push_back(limiters.down);
    }
    if (limiters.up) verdict.policy.limits_from_device.push_back(limiters.up);
  }
  return verdict;
}

const TrafficRules::limiters_t& TrafficRules::GetLimiters(
    size_t limit, const std::string& device, uint32_t uid) {
  const limit_t& rates = rules_.limits[limit];
  const LimiterKey key(limit, rates.scope == Scope::kAll ? "" : device,
                       rates.scope == Scope::kApplication ? uid : kNobodyUid);
  const auto found = limiters_.find(key);
  if (found != limiters_.end()) return found->second;
  ForgetUnusedLimiters();
  limiters_t limiters;
  if (rates.down > 0) limiters.down = MakeLimiter(loop_, rates.down);
  if (rates.up > 0) limiters.up = MakeLimiter(loop_, rates.up);
  return limiters_.emplace(key, std::move(limiters)).first->second;
}

// Not as soon as nobody uses one: who opens one connection after the other
// would find each of them with all that may go after a pause.
void TrafficRules::ForgetUnusedLimiters() {
  if (limiters_.size() < max_limiters_) return;
  for (auto next = limiters_.begin(); next != limiters_.end();) {
    const auto entry = next++;
    const auto& [down, up] = entry->second;
    if (down.use_count() <= 1 && up.use_count() <= 1) limiters_.erase(entry);
  }
  max_limiters_ = std::max(kMinLimiters, 2 * limiters_.size());
}

}  // namespace vantrel
