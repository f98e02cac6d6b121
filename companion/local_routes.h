#pragma once

#include <stdint.h>

#include <asio/io_context.hpp>
#include <functional>
#include <memory>
#include <optional>

#include "common/ip_address.h"
#include "common/unique_fd.h"
#include "support/descriptor.h"

namespace vantrel {

// Asks the kernel's routing table which addresses are this machine's own.
class LocalRoutes {
 public:
  LocalRoutes();
  LocalRoutes(const LocalRoutes&) = delete;
  LocalRoutes& operator=(const LocalRoutes&) = delete;

  // Whether what is sent to |address|, which is IPv4, stays on this machine or
  // goes to more than one. None when the kernel cannot be asked.
  std::optional<bool> IsLocal(const IpAddress& address);

  // From now on |on_change| is called when IsLocal() may have changed for some
  // address; where the kernel does not tell, never. |loop| outlives this.
  void Watch(asio::io_context& loop, std::function<void()> on_change);

 private:
  void OnChange();

  const UniqueFd fd_;      // none: it could not be opened
  uint32_t sequence_ = 0;  // of the last question
  std::function<void()> on_change_;
  std::unique_ptr<Descriptor> changes_;  // null: nobody watches
};

}  // namespace vantrel
