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
  const auto target = link_.destinations.FindForDatagrams(ends.second);
  if (!target) {
    link_.log.Write(LogLevel::kInfo, LogKind::kRefusal,
                    "datagrams to %s refused: not an allowed address",
                    ends.second.ToString().c_str());
  }
  flows_.emplace_back(link_, *this, ends, target);
  flows_.back().last_used_tick = tick_;
  index_.emplace(ends, std::prev(flows_.end()));
  return flows_.back().flow;
}

bool DatagramFlows::IsUpToDate(entry_t* entry) const {
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
