#pragma once

#include <stdint.h>

#include <optional>

#include "common/host_and_port.h"
#include "companion/destination_policy.h"
#include "companion/name_servers.h"

namespace vantrel {

// Where name look-ups go, the datagrams and streams for port 53.
struct look_ups_t {
  // All datagrams to this one, and streams for kNameServerAddress.
  std::optional<HostAndPort> server;
  // All to the name servers of this machine. Otherwise only those for
  // kNameServerAddress go there.
  bool are_all_for_name_servers = false;
};

// Where that goes which a device sends: to the endpoint that it names, if the
// policy allows it, or to a name server, whatever the policy says of that.
class Destinations {
 public:
  // All of it outlives this.
  Destinations(const DestinationPolicy& policy, NameServers& name_servers,
               const look_ups_t& look_ups);
  Destinations(const Destinations&) = delete;
  Destinations& operator=(const Destinations&) = delete;

  // Of what is sent to |remote|, which is IPv4. None when nothing may.
  std::optional<HostAndPort> FindForDatagrams(const HostAndPort& remote) const;
  std::optional<HostAndPort> FindForStream(const HostAndPort& remote) const;

  // As long as it stays the same, so does what is found for |remote|.
  uint32_t GetEdition(const HostAndPort& remote) const;

  // What becomes of questions to |remote|, if they go to a name server of this
  // machine; OnAsked() comes before FindForDatagrams().
  void OnAsked(const HostAndPort& remote) const;
  void OnAnswered(const HostAndPort& remote) const;
  void OnFailed(const HostAndPort& remote) const;

 private:
  bool IsForNameServers(const HostAndPort& remote) const;

  const DestinationPolicy& policy_;
  NameServers& name_servers_;
  const look_ups_t& look_ups_;
};

}  // namespace vantrel
