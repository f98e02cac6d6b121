#include "companion/datagram_flows.h"

#include <assert.h>
#include <sys/socket.h>

#include <algorithm>
#include <iterator>

namespace vantrel {

DatagramFlows::DatagramFlows(const link_parts_t& link) : link_(link) {}

DatagramFlows::~DatagramFlows() = default;

void DatagramFlows::Send(const HostAndPort& local, const HostAndPort& remote,
                         const std::string& payload) {
  if (remote.host.GetFamily() != AF_INET) {
    link_.log.Write(LogLevel::kInfo, LogKind::kRefusal,
                    "datagram dropped: not for an IPv4 address");
    return;
  }
  link_.destinations.OnAsked(remote);
  FindOrCreate(Ends(local, remote)).Send(payload);
}

DatagramFlow& DatagramFlows::FindOrCreate(const Ends& ends) {
  const auto found = index_.find(ends);
  if (found == index_.end()) return Create(ends);
  const Entries::iterator entry = found->second;
  if (!IsUpToDate(&*entry)) {
    Forget(entry);
    return Create(ends);
  }
  Touch(entry);
  return entry->flow;
}

DatagramFlow& DatagramFlows::Create(const Ends& ends) {
  MakeRoom();
  const verdict_t verdict = Judge(ends.second);
  std::optional<HostAndPort> target;
  if (!verdict.denial.empty()) {
    link_.log.Write(LogLevel::kInfo, LogKind::kRefusal,
                    "datagrams to %s denied by %s",
                    ends.second.ToString().c_str(), verdict.denial.c_str());
  } else {
    target = link_.destinations.FindForDatagrams(ends.second);
    if (!target) {
      link_.log.Write(LogLevel::kInfo, LogKind::kRefusal,
                      "datagrams to %s refused: not an allowed address",
                      ends.second.ToString().c_str());
    }
  }
  entry_t& entry = flows_.emplace_back(link_, *this, ends, target);
  entry.is_denied = !verdict.denial.empty();
  entry.is_over_quota = verdict.is_over_quota;
  entry.last_used_tick = tick_;
  entry.flow.SetPolicy(verdict.policy);
  index_.emplace(ends, std::prev(flows_.end()));
  return entry.flow;
}

verdict_t DatagramFlows::Judge(const HostAndPort& remote) const {
  // Without an owner there is no name to wait for.
  return link_.rules.Judge(link_.peer, flow_owner_t(), remote, Transport::kUdp)
      .value();
}

bool DatagramFlows::IsStillAllowed(entry_t* entry) const {
  const uint32_t edition = link_.rules.GetEdition();
  if (entry->rules_edition == edition && !entry->is_over_quota) return true;
  entry->rules_edition = edition;
  const verdict_t verdict = Judge(entry->flow.GetRemote());
  entry->is_over_quota = verdict.is_over_quota;
  entry->flow.SetPolicy(verdict.policy);
  return entry->is_denied == !verdict.denial.empty();
}

// One that a device does not write to any more may still bring answers.
void DatagramFlows::Review() {
  for (auto next = flows_.begin(); next != flows_.end();) {
    const auto entry = next++;
    if (!IsStillAllowed(&*entry)) Forget(entry);
  }
}

bool DatagramFlows::IsUpToDate(entry_t* entry) const {
  if (!IsStillAllowed(entry)) return false;
  // No destination makes a difference to it.
  if (entry->is_denied) return true;
  const HostAndPort& remote = entry->flow.GetRemote();
  const uint32_t edition = link_.destinations.GetEdition(remote);
  if (entry->edition == edition) return true;
  entry->edition = edition;
  return link_.destinations.FindForDatagrams(remote) == entry->flow.GetTarget();
}

void DatagramFlows::Touch(Entries::iterator entry) {
  entry->last_used_tick = tick_;
  flows_.splice(flows_.end(), flows_, entry);
}

// Two go for the one that comes, so that a link whose share has become smaller
// comes down to it.
void DatagramFlows::MakeRoom() {
  for (int i = 0; i < 2 && !flows_.empty(); ++i) {
    const size_t limit = std::min(kMaxFlows, link_.sockets.GetShare());
    if (flows_.size() < limit) return;
    Forget(flows_.begin());
  }
}

void DatagramFlows::Forget(Entries::iterator entry) {
  index_.erase(Ends(entry->flow.GetLocal(), entry->flow.GetRemote()));
  flows_.erase(entry);
}

void DatagramFlows::OnTick() {
  ++tick_;
  while (!flows_.empty() &&
         tick_ - flows_.front().last_used_tick >= kMaxIdleTicks) {
    Forget(flows_.begin());
  }
}

void DatagramFlows::Clear() {
  index_.clear();
  flows_.clear();
}

void DatagramFlows::OnFlowUsed(DatagramFlow& flow) {
  const auto found = index_.find(Ends(flow.GetLocal(), flow.GetRemote()));
  assert(found != index_.end());
  Touch(found->second);
  link_.destinations.OnAnswered(flow.GetRemote());
}

void DatagramFlows::OnFlowFailed(DatagramFlow& flow) {
  link_.destinations.OnFailed(flow.GetRemote());
}

bool DatagramFlows::FreeDescriptor() {
  const auto oldest =
      std::find_if(flows_.begin(), flows_.end(),
                   [](const entry_t& entry) { return entry.flow.HasSocket(); });
  if (oldest == flows_.end()) return false;
  Forget(oldest);
  return true;
}

}  // namespace vantrel
