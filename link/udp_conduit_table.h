#pragma once

#include <stdint.h>

#include <memory>

#include "capture/udp_conduit.h"
#include "common/host_and_port.h"
#include "common/log_limiter.h"
#include "common/lru_cache.h"
#include "link/proxy_socket.h"
#include "reactor/reactor.h"

namespace vantrel {

// A link's UDP conduits by remote endpoint, for the message forms that name
// the application's endpoint too. The conduit that was made longest ago goes
// first, however busy it is: only inserting refreshes an entry.
class UdpConduitTable {
 public:
  UdpConduitTable(uint32_t capacity, Reactor& reactor,
                  UdpConduitFactory factory);

  // A new conduit bound to |remote|, not in the table. Null when it cannot be
  // bound, which is logged; want of descriptors at most once a second.
  std::shared_ptr<UdpConduit> MakeBound(const HostAndPort& remote);

  // Makes sure that answers from |remote| can reach |local|, which has a
  // datagram for it. False when they cannot, logged as above.
  [[nodiscard]] bool Prepare(const HostAndPort& local,
                             const HostAndPort& remote);

  // The conduit for an answer from |remote| to |local|, or with |is_failure|
  // for the failure of a datagram. Null, logged, when it was evicted or |local|
  // has never asked it anything. Valid until the next Prepare().
  UdpConduit* FindForAnswer(const HostAndPort& local, const HostAndPort& remote,
                            bool is_failure);

 private:
  Reactor& reactor_;
  const UdpConduitFactory factory_;
  LogLimiter unbound_log_;
  LruCache<HostAndPort, std::shared_ptr<UdpConduit>> conduits_;
};

}  // namespace vantrel
