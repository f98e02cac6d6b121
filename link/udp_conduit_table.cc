#include "link/udp_conduit_table.h"

#include <errno.h>

#include <utility>

#include "common/log.h"

namespace vantrel {

UdpConduitTable::UdpConduitTable(uint32_t capacity, Reactor& reactor,
                                 UdpConduitFactory factory)
    : reactor_(reactor), factory_(std::move(factory)), conduits_(capacity) {}

std::shared_ptr<UdpConduit> UdpConduitTable::MakeBound(
    const HostAndPort& remote) {
  std::shared_ptr<UdpConduit> conduit(factory_(reactor_, remote));
  if (conduit->Bind()) return conduit;
  if (unbound_log_.AdmitFailure(errno)) {
    LOGE("[B] Unable to bind socket to remote address %s, dropping packet.",
         remote.ToString().c_str());
  }
  return nullptr;
}

bool UdpConduitTable::Prepare(const HostAndPort& local,
                              const HostAndPort& remote) {
  const auto* const known = conduits_.Find(remote);
  if (known != nullptr) {
    (*known)->NoteSender(local);
    return true;
  }
  const std::shared_ptr<UdpConduit> conduit = MakeBound(remote);
  if (conduit == nullptr) return false;
  conduit->NoteSender(local);
  conduits_.Insert(remote, conduit);
  return true;
}

UdpConduit* UdpConduitTable::FindForAnswer(const HostAndPort& local,
                                           const HostAndPort& remote,
                                           bool is_failure) {
  const auto* const conduit = conduits_.Find(remote);
  if (conduit != nullptr && (*conduit)->IsAnswerable(local)) {
    return conduit->get();
  }
  LOGW("[B] Dropping %s packet from %s to %s: evicted",
       is_failure ? "failed" : "v2", remote.ToString().c_str(),
       local.ToString().c_str());
  return nullptr;
}

}  // namespace vantrel
