#pragma once

#include "control/status_socket.h"
#include "link/proxy_socket.h"

namespace vantrel {

// Passes what the link reports about the whole process on to the status
// channel. |status| is not owned and outlives it.
class ProxySocketDelegateImpl : public ProxySocket::Delegate {
 public:
  explicit ProxySocketDelegateImpl(StatusSocket* status) : status_(status) {}

  // Nothing on purpose: the link has stopped the reactor itself, and the
  // ordinary shutdown follows.
  void HandleTeardown() override {}
  void HandleActiveNetworkStateChange(int network_id,
                                      bool is_metered) override {
    status_->ActiveNetworkStateChanged(network_id, is_metered);
  }

 private:
  StatusSocket* const status_;
};

}  // namespace vantrel
