#include "companion/bluetooth_listener.h"

#include <string.h>

#include <string>
#include <utility>

#include "common/link_address.h"
#include "companion/companion_log.h"

namespace vantrel {
namespace {

void LogState(const std::string& fault) {
  if (fault.empty()) {
    ProgramLog().Write(LogLevel::kInfo, LogKind::kLink, "listening on %s",
                       kBluetoothLink);
  } else {
    ProgramLog().Write(LogLevel::kWarning, LogKind::kLink,
                       "no links over Bluetooth: %s", fault.c_str());
  }
}

void LogDisconnect(const std::string& machine) {
  ProgramLog().Write(LogLevel::kInfo, LogKind::kLink,
                     "BlueZ was asked to disconnect %s", machine.c_str());
}

}  // namespace

BluetoothListener::BluetoothListener(asio::io_context& loop,
                                     LinkListener::OnLink on_link)
    : loop_(loop), on_link_(std::move(on_link)) {}

bool BluetoothListener::Open(LinkSecurity security) {
  server_ = std::make_unique<ProfileServer>(
      loop_, security != LinkSecurity::kLow,
      ProfileServer::callbacks_t{on_link_, LogState, LogDisconnect});
  const int error = server_->Start();
  if (error == 0) return true;
  server_.reset();
  LogState(std::string("no D-Bus: ") + strerror(error));
  return false;
}

void BluetoothListener::GoOn() {
  if (server_ != nullptr) server_->GoOn();
}

}  // namespace vantrel
