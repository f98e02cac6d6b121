#include "capture/original_destination.h"

#include <errno.h>
#include <linux/netfilter_ipv4.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace vantrel {

bool GetOriginalDestination(int fd, HostAndPort* destination) {
  sockaddr_in original = {};
  socklen_t length = sizeof(original);
  if (getsockopt(fd, SOL_IP, SO_ORIGINAL_DST, &original, &length) == -1) {
    return false;
  }
  // Connection tracking also answers for a connection made straight to the
  // listener, with the listener itself. Relaying that one would ask the
  // companion to connect to a port of its own loopback.
  const HostAndPort found = HostAndPort::FromIPv4Addr(original);
  sockaddr_in own = {};
  length = sizeof(own);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&own), &length) == 0 &&
      found == HostAndPort::FromIPv4Addr(own)) {
    errno = ENOENT;
    return false;
  }
  *destination = found;
  return true;
}

}  // namespace vantrel
