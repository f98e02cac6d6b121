#pragma once

#include <asio/io_context.hpp>
#include <memory>

#include "bluez/profile_server.h"
#include "companion/link_listener.h"
#include "support/peer_socket.h"

namespace vantrel {

// Waits for devices that find the companion by its Bluetooth service.
class BluetoothListener {
 public:
  BluetoothListener(asio::io_context& loop, LinkListener::OnLink on_link);

  // Begins. BlueZ and adapters may come later; what is missing is logged each
  // time that it has changed. False when there is no D-Bus, which is logged.
  [[nodiscard]] bool Open(LinkSecurity security);
  // After a handler of the loop has failed: it may have been ours.
  void GoOn();

 private:
  asio::io_context& loop_;
  const LinkListener::OnLink on_link_;
  std::unique_ptr<ProfileServer> server_;  // null: there is no D-Bus
};

}  // namespace vantrel
