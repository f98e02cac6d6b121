#pragma once

#include <linux/netlink.h>

#include <string>
#include <string_view>

#include "capture/netlink_socket.h"
#include "common/host_and_port.h"

namespace vantrel {

// A connection as its application made it.
struct tracked_connection_t {
  HostAndPort source;
  HostAndPort destination;
};

// What the kernel's connection tracking knows of redirected connections. The
// packet filter changes the source port of one when another one that it knows
// has that port already, so the accepted socket does not tell the application's
// own port. The tracking does: one question and one answer over netlink
// (linux/netfilter/nfnetlink_conntrack.h).
class ConnectionTracking {
 public:
  // Of the connection between |local|, the accepted socket's own end, and
  // |peer|, both IPv4. False where the kernel says nothing: it has no tracking
  // over netlink, the right to ask is missing, or the connection is forgotten.
  // Never waits.
  [[nodiscard]] bool Find(const HostAndPort& local, const HostAndPort& peer,
                          tracked_connection_t* found);

 private:
  NetlinkSocket socket_{NETLINK_NETFILTER, "connection tracking"};
};

// The question for the connection whose answers go from |local| to |peer|,
// without the header of netlink.
std::string EncodeTrackingQuestion(const HostAndPort& local,
                                   const HostAndPort& peer);
// Reads what the kernel has answered, without that header. False when it is not
// about an IPv4 connection.
[[nodiscard]] bool DecodeTrackingAnswer(std::string_view answer,
                                        tracked_connection_t* found);

}  // namespace vantrel
