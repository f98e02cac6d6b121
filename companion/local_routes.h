#pragma once

#include <stdint.h>

#include <optional>

#include "common/ip_address.h"

namespace vantrel {

// Asks the kernel's routing table which addresses are this machine's own.
class LocalRoutes {
 public:
  LocalRoutes();
  LocalRoutes(const LocalRoutes&) = delete;
  LocalRoutes& operator=(const LocalRoutes&) = delete;
  ~LocalRoutes();

  // Whether what is sent to |address|, which is IPv4, stays on this machine or
  // goes to more than one. None when the kernel cannot be asked.
  std::optional<bool> IsLocal(const IpAddress& address);

 private:
  const int fd_;           // -1: it could not be opened
  uint32_t sequence_ = 0;  // of the last question
};

}  // namespace vantrel
