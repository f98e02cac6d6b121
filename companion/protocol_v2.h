#pragma once

#include <stdint.h>

#include <string>

#include "companion/link_protocol.h"
#include "link_v2/message_decoder.h"

namespace vantrel {

// Link protocol 20: checksummed frames. A damaged frame is logged and skipped
// by the decoder; once frames can no longer be told apart, or when the device
// speaks before its handshake, the link ends with a teardown.
class ProtocolV2 final : public LinkProtocol {
 public:
  // |build_info| is told to the device in the handshake.
  ProtocolV2(std::string build_info, std::string* control);

  bool HandleNext(DeviceMessages& device) override;

  size_t GetMaxDatagramBytes() const override { return kMaxFramePayloadSize; }
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
  // The message has no place for |is_metered|.
  void PutNetworkState(std::string* out, int32_t network_id,
                       bool is_metered) override;
  void PutTeardown(std::string* out, const std::string& reason) override;

 private:
  // Once the handshake is acknowledged the device may send anything: it does
  // not hold streams back until it has completed the handshake itself.
  enum class State { kNotStarted, kAcknowledged, kReady, kFailed };

  room_t MakeRoom() override;
  void OnReceived(size_t count) override { decoder_.OnFilled(count); }
  // Both take what is in |message_|.
  void HandleFirst(DeviceMessages& device);
  void Handle(DeviceMessages& device);
  void HandleHandshakeStart(DeviceMessages& device,
                            const messages::MessageHandshake& handshake);
  void HandleHandshakeDone(DeviceMessages& device);
  void HandlePackageNames(DeviceMessages& device);
  void PutHandshakeAck(uint32_t version, const std::string& error);
  void FailWithTeardown(DeviceMessages& device, const std::string& reason);
  void Fail(DeviceMessages& device, const std::string& reason);

  const std::string build_info_;
  State state_ = State::kNotStarted;
  std::string device_build_info_;
  // The last acknowledgement: most often the next one is the same.
  std::string write_ack_;
  uint32_t write_ack_stream_id_ = 0;
  MessageDecoder decoder_;
  MessageDecoder::message_t message_;
};

}  // namespace vantrel
