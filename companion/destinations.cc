#include "companion/destinations.h"

#include <netinet/in.h>

#include "common/interception.h"
#include "support/steady_time.h"

namespace vantrel {
namespace {

bool IsLookUp(const HostAndPort& remote) { return remote.port == kDnsPort; }

bool IsForUs(const HostAndPort& remote) {
  return remote ==
         HostAndPort(IpAddress::FromIPv4NetworkBytes(htonl(kNameServerAddress)),
                     kDnsPort);
}

}  // namespace

Destinations::Destinations(const DestinationPolicy& policy,
                           NameServers& name_servers,
                           const look_ups_t& look_ups)
    : policy_(policy), name_servers_(name_servers), look_ups_(look_ups) {}

bool Destinations::IsForNameServers(const HostAndPort& remote) const {
  return !look_ups_.server && IsLookUp(remote) &&
         (look_ups_.are_all_for_name_servers || IsForUs(remote));
}

std::optional<HostAndPort> Destinations::FindForDatagrams(
    const HostAndPort& remote) const {
  if (IsLookUp(remote) && look_ups_.server) return look_ups_.server;
  return FindForStream(remote);
}

std::optional<HostAndPort> Destinations::FindForStream(
    const HostAndPort& remote) const {
  if (IsForUs(remote) && look_ups_.server) return look_ups_.server;
  if (IsForNameServers(remote)) return name_servers_.Get(GetSteadyTime());
  return policy_.Allows(remote.host) ? std::optional(remote) : std::nullopt;
}

uint32_t Destinations::GetEdition(const HostAndPort& remote) const {
  return IsForNameServers(remote) ? name_servers_.GetEdition(GetSteadyTime())
                                  : policy_.GetEdition();
}

void Destinations::OnAsked(const HostAndPort& remote) const {
  if (IsForNameServers(remote)) name_servers_.OnAsked(GetSteadyTime());
}

void Destinations::OnAnswered(const HostAndPort& remote) const {
  if (IsForNameServers(remote)) name_servers_.OnAnswered();
}

void Destinations::OnFailed(const HostAndPort& remote) const {
  if (IsForNameServers(remote)) name_servers_.OnFailed();
}

}  // namespace vantrel
