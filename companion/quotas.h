#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "common/uid.h"
#include "companion/rules.h"

namespace vantrel {

class Quotas;

// The bytes of somebody who has a quota for himself, in the present period.
class QuotaCount {
 public:
  // |quotas| outlives what adds to it.
  QuotaCount(Quotas& quotas, const quota_t& quota)
      : quotas_(quotas), quota_(quota) {}
  QuotaCount(const QuotaCount&) = delete;
  QuotaCount& operator=(const QuotaCount&) = delete;

  // Of payload, in either direction.
  void Add(size_t bytes);
  bool IsUsedUp();
  const quota_t& GetQuota() const { return quota_; }

 private:
  friend class Quotas;
  // A later period begins with nothing. An earlier one, after the clock was
  // set back, goes on with what is counted: so a clock that was wrong for a
  // while neither gives anything away nor locks anybody out for years.
  void Renew();

  Quotas& quotas_;
  quota_t quota_;
  uint32_t period_ = 0;  // GetPeriod() of |bytes_|
  uint64_t bytes_ = 0;
};

// |bytes| that count for each of |counts|.
inline void AddToAll(const std::vector<std::shared_ptr<QuotaCount>>& counts,
                     size_t bytes) {
  for (const auto& count : counts) count->Add(bytes);
}

inline bool IsAnyUsedUp(
    const std::vector<std::shared_ptr<QuotaCount>>& counts) {
  return std::any_of(counts.begin(), counts.end(),
                     [](const auto& count) { return count->IsUsedUp(); });
}

// What was used of all quotas, by all links, and the text in which that
// outlives the program.
class Quotas {
 public:
  // Those who count by themselves, of one quota. Further ones share a count, so
  // that a device that invents applications costs no more memory.
  static constexpr size_t kMaxCounts = 4096;

  struct callbacks_t {
    std::function<time_t()> get_time;
    std::function<void()> on_changed;  // something was counted
    std::function<void()> on_used_up;  // what was not used up before
  };

  explicit Quotas(callbacks_t callbacks);
  Quotas(const Quotas&) = delete;
  Quotas& operator=(const Quotas&) = delete;

  // From now on these are counted. The counts of a quota go on if it has its
  // name and period still, the others are forgotten.
  void Set(const std::vector<quota_t>& quotas);
  // |quota| is one of those. |device| is link_peer_t::device; a stream without
  // an owner has kNobodyUid.
  std::shared_ptr<QuotaCount> Get(const quota_t& quota,
                                  const std::string& device, uint32_t uid);

  std::string ToJson() const;
  // Takes what ToJson() has written, as far as it is of the present quotas.
  // False where |text| is anything else; what could be read was taken.
  [[nodiscard]] bool TakeJson(const std::string& text);

 private:
  friend class QuotaCount;
  using Whose = std::pair<std::string, uint32_t>;  // device, UID
  struct kept_t {
    quota_t quota;
    std::map<Whose, std::shared_ptr<QuotaCount>> counts;
    uint32_t tidied = 0;  // the period in which those of earlier ones went
  };

  // A number that is larger for a later day or month of local time.
  uint32_t GetPeriod(Period period);
  // None when there is no room for another.
  std::shared_ptr<QuotaCount> FindOrMake(kept_t* kept, const Whose& whose);
  void ForgetPast(kept_t* kept);

  const callbacks_t callbacks_;
  std::map<std::string, kept_t> quotas_;  // by their names
  // Of the second for which it was last asked: the calendar takes its time.
  time_t second_ = -1;
  uint32_t day_ = 0;
};

}  // namespace vantrel
