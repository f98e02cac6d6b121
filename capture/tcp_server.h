#pragma once

#include <stdint.h>

#include "link/proxy_socket.h"
#include "reactor/reactor.h"
#include "reactor/socket.h"

namespace vantrel {

// Accepts the TCP connections that the nat rules redirect to the loopback
// address. Each becomes a TcpConduit, which owns itself; the server keeps no
// pointer to it. |reactor| and |link| outlive the server.
class TcpServer : public Socket {
 public:
  TcpServer(Reactor& reactor, ProxySocket& link);
  ~TcpServer() override;

  // Listens on 127.0.0.1 and registers for reading. Returns the port that the
  // kernel chose, in host byte order, or 0 on failure, which is logged.
  [[nodiscard]] uint16_t Listen();

  void OnReadReady() override;  // accepts one connection

 private:
  uint32_t last_stream_id_ = 0;  // the first stream is 1; wraps
  Reactor& reactor_;
  ProxySocket& link_;
};

}  // namespace vantrel
