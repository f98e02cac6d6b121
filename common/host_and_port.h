#pragma once

#include <netinet/in.h>
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <ostream>
#include <string>
#include <utility>

#include "common/ip_address.h"

namespace vantrel {

// One endpoint of a flow. A plain value, copied freely. Default-constructed it
// is empty: no address, port 0. Any address goes with any port, so both are
// public.
class HostAndPort {
 public:
  HostAndPort() = default;
  // |port_in_host_order| as in 53 for DNS.
  HostAndPort(const IpAddress& address, unsigned short port_in_host_order)
      : host(address), port(port_in_host_order) {}

  static HostAndPort FromIPv4Addr(const sockaddr_in& address);
  // Both as they stand in a packet, in network byte order.
  static HostAndPort FromIPv4NetworkBytes(uint32_t address, uint16_t port);

  // The endpoint as a socket address. For another family than IPv4 logs an
  // error and returns an all-zero structure, whose family no call accepts.
  sockaddr_in GetSockAddrV4() const;

  // Ports, families and, for a real family, addresses are equal. Two empty
  // endpoints with the same port are equal on purpose.
  bool operator==(const HostAndPort& other) const;
  bool operator!=(const HostAndPort& other) const { return !(*this == other); }

  // "address:port", IPv6 without brackets: for reading, never parsed back.
  std::string ToString() const;

  IpAddress host;
  uint16_t port = 0;  // host byte order
};

std::ostream& operator<<(std::ostream& out, const HostAndPort& endpoint);

}  // namespace vantrel

namespace std {

template <>
struct hash<vantrel::HostAndPort> {
  size_t operator()(const vantrel::HostAndPort& endpoint) const {
    return uint32_t{31} * endpoint.host.GetHashCode() + endpoint.port;
  }
};

// A flow: the local application's endpoint, then the remote one.
template <>
struct hash<pair<vantrel::HostAndPort, vantrel::HostAndPort>> {
  size_t operator()(
      const pair<vantrel::HostAndPort, vantrel::HostAndPort>& flow) const {
    const hash<vantrel::HostAndPort> end;
    return static_cast<uint32_t>(31 * end(flow.first) + end(flow.second));
  }
};

}  // namespace std
