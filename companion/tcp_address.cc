#include "companion/tcp_address.h"

#include <netdb.h>
#include <netinet/in.h>
#include <string.h>

#include <memory>

namespace vantrel {

std::optional<tcp_address_t> FindTcpAddress(const link_address_t& address,
                                            std::string* reason) {
  addrinfo hints = {};
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error =
      getaddrinfo(address.host.c_str(), address.port.c_str(), &hints, &found);
  if (error != 0) {
    *reason = gai_strerror(error);
    return std::nullopt;
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found,
                                                                 freeaddrinfo);
  tcp_address_t first;
  first.length = found->ai_addrlen;
  memcpy(&first.bytes, found->ai_addr, first.length);
  return first;
}

bool IsLoopback(const tcp_address_t& address) {
  if (address.bytes.ss_family == AF_INET6) {
    sockaddr_in6 v6;
    memcpy(&v6, &address.bytes, sizeof(v6));
    return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) != 0;
  }
  sockaddr_in v4;
  memcpy(&v4, &address.bytes, sizeof(v4));
  return address.bytes.ss_family == AF_INET &&
         ntohl(v4.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
}

UniqueFd BindTcp(tcp_address_t* address) {
  UniqueFd fd(socket(address->bytes.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  auto* const bytes = reinterpret_cast<sockaddr*>(&address->bytes);
  if (bind(fd.Get(), bytes, address->length) == -1 ||
      getsockname(fd.Get(), bytes, &address->length) == -1) {
    return UniqueFd();
  }
  return fd;
}

std::string ToText(const tcp_address_t& address) {
  char host[NI_MAXHOST] = "?";
  char port[NI_MAXSERV] = "?";
  getnameinfo(reinterpret_cast<const sockaddr*>(&address.bytes), address.length,
              host, sizeof(host), port, sizeof(port),
              NI_NUMERICHOST | NI_NUMERICSERV);
  const bool is_ipv6 = address.bytes.ss_family == AF_INET6;
  return (is_ipv6 ? "[" + std::string(host) + "]" : host) + ":" + port;
}

}  // namespace vantrel
