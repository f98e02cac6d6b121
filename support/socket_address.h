#pragma once

#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <string>

#include "common/host_and_port.h"

namespace vantrel {

// connect(2) to |remote|, which has an address. As that, -1 with errno.
inline int ConnectTo(int fd, const HostAndPort& remote) {
  if (remote.host.GetFamily() == AF_INET) {
    const sockaddr_in address = remote.GetSockAddrV4();
    return connect(fd, reinterpret_cast<const sockaddr*>(&address),
                   sizeof(address));
  }
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(remote.port);
  const std::string bytes = remote.host.ToNetworkBytes();
  memcpy(&address.sin6_addr, bytes.data(), sizeof(address.sin6_addr));
  return connect(fd, reinterpret_cast<const sockaddr*>(&address),
                 sizeof(address));
}

}  // namespace vantrel
