#pragma once

#include <string>

#include "daemon/interception_rules.h"

namespace vantrel {

// Refuses at once what applications send while no daemon carries it: a text for
// nft(8), which puts the rules into the table |table| in place of what that
// holds. The route leads such packets to the machine itself, where they would
// be lost: the kernel answers nothing from an address that is not its own.
//
// This stands behind the rules of the daemon. While those stand, a connection
// has the daemon's address by the time it comes here, and a datagram has the
// daemon's transparent socket. So nobody has to change anything here when a
// daemon starts or ends.
inline std::string GetNoTunnelRules(const std::string& table) {
  const std::string interface = std::string("\"") + kInterface + "\"";
  return "table ip " + table + "\ndelete table ip " + table + "\ntable ip " +
         table + R"( {
  chain refuse {
    type filter hook input priority filter
    iif != "lo" accept
    # Addresses of the machine itself, groups, broadcasts.
    fib daddr type != unicast accept
    socket transparent 1 accept
    meta l4proto tcp reject with tcp reset
    # The kernel would not send the error from here. It sends it for a copy that
    # goes another way; the address is nobody's, and nothing leaves there.
    meta l4proto udp dup to 192.0.2.1 device )" +
         interface + R"( drop
  }
  chain answer {
    type filter hook output priority filter
    oif )" +
         interface + R"( meta l4proto udp reject
  }
}
)";
}

}  // namespace vantrel
