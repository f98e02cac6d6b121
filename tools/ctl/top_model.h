#pragma once

#include <stdint.h>

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/ctl/link_dump.h"
#include "tools/ctl/top_rates.h"
#include "tools/launch_state.h"

namespace vantrel {

// What vantrelctl top shows of a launcher: its last state, and rates from those
// before it. Time is the launcher's, so that a late reader computes the same.
class TopModel {
 public:
  using Sort = TopSort;
  struct application_t {
    uint32_t uid = 0;
    std::string name;  // empty: unknown
    rate_t rate;
    traffic_t total;
  };
  struct stream_t {
    link_dump_t::stream_t dump;
    std::string owner;  // empty: unknown
    rate_t rate;
  };

  // The launcher said so. A state that comes soon after the one before, since
  // something has changed, gives no new rates.
  void Update(const launch_state_t& state);
  // The launcher has gone: a next one counts from zero.
  void Disconnect();
  // A dump that was asked for at the last Update().
  void SetDump(link_dump_t dump, const StreamOwners& owners);

  bool IsConnected() const { return is_connected_; }
  // The last state, also of a launcher that has gone; empty until the first.
  const std::optional<launch_state_t>& GetState() const { return state_; }
  // Of the link; none without a relay.
  rate_t GetLinkRate() const;
  // The link's rates, the latest last.
  const std::deque<rate_t>& GetHistory() const { return history_; }
  // What of it moves most first, or by name.
  std::vector<application_t> GetApplications(Sort sort) const;

  // None while no dump was taken.
  const std::optional<link_dump_t>& GetDump() const { return dump_; }
  std::vector<stream_t> GetStreams(Sort sort) const;

 private:
  void UpdateApplications(const launch_state_t& state);
  bool IsStatsRateOld() const;

  std::optional<launch_state_t> state_;
  bool is_connected_ = false;
  // Where the next rates are measured from.
  std::optional<launch_state_t> link_base_;
  std::optional<launch_state_t> stats_base_;
  std::deque<rate_t> history_;
  std::map<uint32_t, rate_t> by_uid_;
  uint64_t stats_interval_ms_ = 0;  // between the last two reports
  std::optional<link_dump_t> dump_;
  uint64_t dump_time_ms_ = 0;
  std::map<uint32_t, stream_t> streams_;
};

}  // namespace vantrel
