#pragma once

#include <stdint.h>

#include "capture/open_conduits.h"
#include "common/log_limiter.h"
#include "common/unique_fd.h"
#include "link/proxy_socket.h"
#include "reactor/reactor.h"
#include "reactor/server_socket.h"

namespace vantrel {

// Accepts the TCP connections that the nat rules redirect to the loopback
// address. Each becomes a TcpConduit, which owns itself. |reactor| and |link|
// outlive the server.
class TcpServer : public ServerSocket {
 public:
  TcpServer(Reactor& reactor, ProxySocket& link);
  ~TcpServer() override;

  // Listens on 127.0.0.1 and registers for reading. Returns the port that the
  // kernel chose, in host byte order, or 0 on failure, which is logged.
  [[nodiscard]] uint16_t Listen();

  void OnReadReady() override;  // accepts one connection

  // Takes no more connections, and resets every one that is open or waits to
  // be accepted: applications see at once that theirs was cut. To be called
  // before the rules are removed, for without them a reset no longer finds its
  // way. The link is not told, and must not touch its streams afterwards.
  void ResetConnections();

 private:
  // Takes one connection without a free descriptor, only to end it. Otherwise
  // it would stay at the head of the queue, and be reported for ever.
  void RefuseConnection();
  void TakeReserve();

  uint32_t last_stream_id_ = 0;  // the first stream is 1; wraps
  Reactor& reactor_;
  ProxySocket& link_;
  OpenConduits open_conduits_;
  // Held only to be given up for RefuseConnection(); none when there was none.
  UniqueFd reserve_;
  LogLimiter no_reserve_log_;
};

}  // namespace vantrel
