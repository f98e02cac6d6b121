#include "common/host_and_port.h"

#include <arpa/inet.h>

#include "common/log.h"

namespace vantrel {

HostAndPort HostAndPort::FromIPv4Addr(const sockaddr_in& address) {
  return FromIPv4NetworkBytes(address.sin_addr.s_addr, address.sin_port);
}

HostAndPort HostAndPort::FromIPv4NetworkBytes(uint32_t address, uint16_t port) {
  return HostAndPort(IpAddress::FromIPv4NetworkBytes(address), ntohs(port));
}

sockaddr_in HostAndPort::GetSockAddrV4() const {
  sockaddr_in result = {};
  if (host.GetFamily() != AF_INET) {
    LOGE("Attempt to obtain sockaddr_in from wrong addr family %d",
         host.GetFamily());
    return result;
  }
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  result.sin_addr.s_addr = host.GetAddrV4();
  return result;
}

bool HostAndPort::operator==(const HostAndPort& other) const {
  return port == other.port && host.IsSameAs(other.host);
}

std::string HostAndPort::ToString() const {
  return host.ToString() + ":" + std::to_string(port);
}

std::ostream& operator<<(std::ostream& out, const HostAndPort& endpoint) {
  return out << endpoint.ToString();
}

}  // namespace vantrel
