#pragma once

#include <stdint.h>

#include "reactor/socket.h"

namespace vantrel {

// A socket of the daemon's own, open for whoever comes: what TCP, UDP and
// control server share. Each step returns false on failure and logs it with
// the |component| that stands before every line of that server ("[S]"). The
// descriptor of a step that failed stays open until destruction.
class ServerSocket : public Socket {
 protected:
  // |component| outlives this.
  explicit ServerSocket(const char* component) : component_(component) {}

  // |type| is SOCK_STREAM or SOCK_DGRAM, over IPv4.
  [[nodiscard]] bool Open(int type);
  // Turns an option on; |name| is how the log calls it.
  [[nodiscard]] bool TurnOn(int level, int option, const char* name);
  // Both in host byte order. Port 0: the kernel chooses one.
  [[nodiscard]] bool Bind(uint32_t address, uint16_t port);
  // The port that it is bound to, in host byte order; 0 on failure.
  [[nodiscard]] uint16_t GetPort();

  const char* const component_;
};

}  // namespace vantrel
