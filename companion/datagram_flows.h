#pragma once

#include <stddef.h>
#include <stdint.h>

#include <list>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "common/host_and_port.h"
#include "companion/datagram_flow.h"
#include "companion/link_parts.h"

namespace vantrel {

// All UDP flows of one link. A flow ends when it was silent for five minutes,
// as RFC 4787 recommends (REQ-5), or when it is the one that was silent longest
// and there are too many: more than kMaxFlows, more than the link's share of
// sockets, or than there are descriptors.
class DatagramFlows final : public DatagramFlow::Owner {
 public:
  static constexpr size_t kMaxFlows = 512;
  static constexpr uint32_t kMaxIdleTicks = 5 * 60;

  explicit DatagramFlows(const link_parts_t& link);
  DatagramFlows(const DatagramFlows&) = delete;
  DatagramFlows& operator=(const DatagramFlows&) = delete;
  ~DatagramFlows() override;

  // Sends one datagram of the application at |local|; the flow is made when it
  // is not known.
  void Send(const HostAndPort& local, const HostAndPort& remote,
            const std::string& payload);
  void OnTick();  // once a second
  void Clear();
  // Judges the flows again that were judged by other rules.
  void Review();
  size_t GetCount() const { return flows_.size(); }
  // Ends the flow with a socket that was silent longest. False when there is
  // none.
  [[nodiscard]] bool FreeDescriptor();

  void OnFlowUsed(DatagramFlow& flow) override;
  void OnFlowFailed(DatagramFlow& flow) override;

 private:
  using Ends = std::pair<HostAndPort, HostAndPort>;  // local, remote
  struct entry_t {
    entry_t(const link_parts_t& link, DatagramFlow::Owner& owner,
            const Ends& ends, const std::optional<HostAndPort>& target)
        : flow(link, owner, ends.first, ends.second, target),
          edition(link.destinations.GetEdition(ends.second)),
          rules_edition(link.rules.GetEdition()) {}

    DatagramFlow flow;
    uint32_t edition;        // of its target
    uint32_t rules_edition;  // by which it was judged
    bool is_denied = false;
    bool is_over_quota = false;  // which may end at any time
    uint32_t last_used_tick = 0;
  };
  using Entries = std::list<entry_t>;

  DatagramFlow& FindOrCreate(const Ends& ends);
  DatagramFlow& Create(const Ends& ends);
  verdict_t Judge(const HostAndPort& remote) const;
  // Whether |entry| still sends to where it may. Its policy is that of the
  // present rules afterwards.
  bool IsUpToDate(entry_t* entry) const;
  bool IsStillAllowed(entry_t* entry) const;
  void Touch(Entries::iterator entry);
  void MakeRoom();
  void Forget(Entries::iterator entry);

  const link_parts_t& link_;
  Entries flows_;  // longest silent first
  std::unordered_map<Ends, Entries::iterator> index_;
  uint32_t tick_ = 0;
};

}  // namespace vantrel
