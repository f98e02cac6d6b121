#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <memory>
#include <string>

#include "companion/link_protocol.h"

namespace vantrel {

// The protocol that the device speaks, as its first bytes tell: those of 20
// begin with the magic number of a frame, those of 5 with a handshake, those of
// 1 with any other message. Until then nothing may be sent to the device,
// except what no protocol has: a link that is closed so early is told no
// reason.
class ProtocolAuto final : public LinkProtocol {
 public:
  // |build_info| as ProtocolV2 takes it.
  ProtocolAuto(std::string build_info, std::string* control);

  bool IsKnown() const override { return chosen_ != nullptr; }
  const LinkOpening& GetOpening() const override;
  bool HandleNext(DeviceMessages& device) override;

  size_t GetMaxDatagramBytes() const override;
  void PutData(std::string* out, uint32_t stream_id,
               const std::string& bytes) override;
  void PutClose(std::string* out, uint32_t stream_id) override;
  void PutWriteAck(std::string* out, uint32_t stream_id) override;
  void PutDatagram(std::string* out, const HostAndPort& local,
                   const HostAndPort& remote,
                   const std::string& payload) override;
  void PutUdpFailure(std::string* out, const HostAndPort& local,
                     const HostAndPort& remote,
                     const std::string& request) override;
  void PutNetworkState(std::string* out, int32_t network_id,
                       bool is_metered) override;
  void PutTeardown(std::string* out, const std::string& reason) override;

 private:
  room_t MakeRoom() override;
  void OnReceived(size_t count) override;
  void Choose(int protocol);

  const std::string build_info_;
  // Until the choice. More than it takes to tell a protocol, or a connection
  // header for nobody.
  std::array<char, 64> buffer_;
  size_t received_ = 0;
  bool has_failed_ = false;
  std::unique_ptr<LinkProtocol> chosen_;
};

}  // namespace vantrel
