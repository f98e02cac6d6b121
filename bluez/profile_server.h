#pragma once

#include <asio/io_context.hpp>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "bluez/bus_connection.h"
#include "common/bluetooth_address.h"
#include "common/unique_fd.h"
#include "support/lifetime.h"
#include "support/timer.h"

namespace vantrel {

// Offers the service on all adapters of this machine: registers it with BlueZ,
// also each time that BlueZ has come back, and takes the connections that BlueZ
// has accepted.
class ProfileServer {
 public:
  struct callbacks_t {
    // |fd| is a connected stream socket; |machine| is its address in words.
    std::function<void(UniqueFd fd, const std::string& machine)> on_link;
    // Once for each change: |text| says what keeps links away, and is empty
    // when nothing does.
    std::function<void(const std::string& text)> on_state;
    // BlueZ has ended the link of |machine|, because somebody has asked it to.
    std::function<void(const std::string& machine)> on_disconnect;
  };

  // |loop| outlives it. With |is_encrypted| only paired machines may connect,
  // and the link is encrypted.
  ProfileServer(asio::io_context& loop, bool is_encrypted,
                callbacks_t callbacks);
  ProfileServer(const ProfileServer&) = delete;
  ProfileServer& operator=(const ProfileServer&) = delete;

  // Begins. Without D-Bus 0 does not come back but the errno, and nothing more
  // happens.
  [[nodiscard]] int Start();
  // After a handler of the loop has failed: it may have been ours.
  void GoOn();

 private:
  // On a new connection to D-Bus. The errno when there is none.
  int Connect();
  void Ask();
  void OnBusLost(int error);
  void OnOwner(const std::string& owner);
  void Register();
  void OnRegistered(sd_bus_message* reply);
  void LookAtAdapters();
  void Retry();
  void OnRetry();
  void Say(const std::string& text);

  void OnCall(sd_bus_message* call);
  // Each answers its call.
  void TakeConnection(sd_bus_message* call);
  void Disconnect(sd_bus_message* call);
  // Gives up connections of which nobody has the other end any more.
  void ForgetConnections();

  asio::io_context& loop_;
  const bool is_encrypted_;
  const callbacks_t callbacks_;
  std::unique_ptr<BusConnection> bus_;
  Timer retry_;
  std::string owner_;  // BlueZ' own name on the bus; empty: it does not run
  bool is_registered_ = false;
  bool has_said_ = false;
  std::string said_;
  // A second descriptor of each link, by the machine's object: through it a
  // link can be ended.
  std::multimap<std::string, UniqueFd> connections_;
  const Lifetime lifetime_;
};

}  // namespace vantrel
