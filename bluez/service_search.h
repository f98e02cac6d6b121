#pragma once

#include <bluetooth/bluetooth.h>
#include <bluetooth/sdp.h>
#include <bluetooth/sdp_lib.h>

#include <memory>
#include <optional>
#include <string>

#include "common/bluetooth_address.h"

namespace vantrel {

// Asks another machine which RFCOMM channel the service has, by the service
// discovery protocol. Goes around BlueZ' daemon on this machine: that connects
// only what it has learned of, which is what the other one offered when the two
// were paired.
class ServiceSearch {
 public:
  enum class Wait { kWritable, kReadable, kNothing };

  // Begins, from the adapter |source|, or from any that is on.
  ServiceSearch(const std::optional<BluetoothAddress>& source,
                const BluetoothAddress& machine);
  ServiceSearch(const ServiceSearch&) = delete;
  ServiceSearch& operator=(const ServiceSearch&) = delete;

  // What to wait for before Advance(); kNothing once it is over.
  Wait GetWait() const { return wait_; }
  int GetFd() const;
  void Advance();

  // When it is over: an errno, or 0.
  int GetError() const { return error_; }
  // 1 to 30; 0 when the machine does not offer the service.
  int GetChannel() const { return channel_; }

 private:
  class SessionDeleter {
   public:
    void operator()(sdp_session_t* session) const { sdp_close(session); }
  };

  void Ask();
  void End(int error);
  static void OnAnswer(uint8_t type, uint16_t status, uint8_t* records,
                       size_t size, void* search);

  Wait wait_ = Wait::kWritable;
  std::unique_ptr<sdp_session_t, SessionDeleter> session_;
  int error_ = 0;
  int channel_ = 0;
};

// As the kernel has addresses: the last byte first.
bdaddr_t ToKernel(const BluetoothAddress& address);

}  // namespace vantrel
