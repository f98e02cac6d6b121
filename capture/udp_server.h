#pragma once

#include <stdint.h>

#include "link/proxy_socket.h"
#include "reactor/reactor.h"
#include "reactor/server_socket.h"

struct msghdr;

namespace vantrel {

// Receives the UDP datagrams that the mangle rules divert to its transparent
// socket and hands each to the link, with the application's endpoint and the
// one it was meant for. |reactor| and |link| outlive the server.
class UdpServer : public ServerSocket {
 public:
  UdpServer(Reactor& reactor, ProxySocket& link);
  ~UdpServer() override;

  // Binds the socket and registers for reading. Returns the port that the
  // kernel chose, in host byte order, or 0 on failure, which is logged.
  [[nodiscard]] uint16_t Listen();

  void OnReadReady() override;  // takes every pending datagram

 private:
  void HandleDatagram(const msghdr& message, const char* data, size_t length);

  Reactor& reactor_;
  ProxySocket& link_;
};

}  // namespace vantrel
