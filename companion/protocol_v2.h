#pragma once

#include <deque>
#include <string>

#include "companion/link_protocol.h"
#include "link_v2/message_decoder.h"

namespace vantrel {

// Link protocol 2: checksummed frames. A damaged frame is logged and skipped
// by the decoder; once frames can no longer be told apart, or when the device
// speaks before its handshake, the link ends with a teardown.
class ProtocolV2 : public LinkProtocol {
 public:
  // |build_info| is told to the device in the handshake.
  explicit ProtocolV2(std::string build_info);

  size_t GetAvailableSpace() const override;
  void Feed(const char* data, size_t length) override;
  bool GetNextEvent(LinkEvent* out) override;
  // There are no such transfers.
  bool GetNextBulk(std::string*) override { return false; }

  size_t GetMaxDatagramBytes() const override { return kMaxFramePayloadSize; }
  std::string EncodeData(uint32_t stream_id,
                         const std::string& bytes) const override;
  std::string EncodeClose(uint32_t stream_id) const override;
  std::string EncodeWriteAck(uint32_t stream_id) const override;
  std::string EncodeDatagram(const HostAndPort& local,
                             const HostAndPort& remote,
                             const std::string& payload) const override;
  std::string EncodeUdpFailure(const HostAndPort& local,
                               const HostAndPort& remote,
                               const std::string& request) const override;
  // The message has no place for |is_metered|.
  std::string EncodeNetworkState(int32_t network_id,
                                 bool is_metered) const override;
  std::string EncodeTeardown(const std::string& reason) const override;

 private:
  // Once the handshake is acknowledged the device may send anything: it does
  // not hold streams back until it has completed the handshake itself.
  enum class State { kNotStarted, kAcknowledged, kReady, kFailed };

  void HandleMessage(MessageDecoder::Message* message);
  void HandleHandshakeStart(const messages::MessageHandshake& handshake);
  void HandleHandshakeDone();
  void HandlePackageNames(const messages::MessagePackageNames& names);
  std::string EncodeHandshakeAck(uint32_t version,
                                 const std::string& error) const;
  LinkEvent& AddEvent(LinkEvent::Type type);
  void AddUnexpected(const messages::Header& header);
  // |farewell| is the last message of the link.
  void Fail(const std::string& reason, std::string farewell);

  const std::string build_info_;
  State state_ = State::kNotStarted;
  std::string device_build_info_;
  MessageDecoder decoder_;
  std::deque<LinkEvent> events_;
};

}  // namespace vantrel
