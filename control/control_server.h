#pragma once

#include <stddef.h>
#include <stdint.h>

#include "control/status_socket.h"
#include "link/proxy_socket.h"
#include "reactor/reactor.h"
#include "reactor/server_socket.h"

namespace vantrel {

// A debugging aid: a UDP socket on the loopback address that takes the packets
// of control/control_packets.h and never answers. Listens on debuggable builds
// only. |reactor|, |link| and |status| outlive it.
class ControlServer : public ServerSocket {
 public:
  ControlServer(Reactor& reactor, ProxySocket& link, StatusSocket& status);
  ~ControlServer() override;

  // Binds the port and registers for reading. Returns the port in host byte
  // order, or 0 on failure, which is logged.
  [[nodiscard]] uint16_t Listen();

  void OnReadReady() override;  // handles every pending packet

  // Handles one packet. A malformed one is logged and dropped.
  void ProcessMessage(const char* data, size_t length);

 private:
  void LogDump();
  void ReportTransferStats();

  Reactor& reactor_;
  ProxySocket& link_;
  StatusSocket& status_;
};

}  // namespace vantrel
