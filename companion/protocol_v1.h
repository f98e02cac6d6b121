#pragma once

#include <stdint.h>

#include <array>
#include <string>
#include <unordered_map>

#include "companion/link_protocol.h"
#include "link/v1_wire.h"

namespace vantrel {

// Link protocols 1 and 5, which have one format: 5 with a handshake and with
// the application's endpoint in every datagram, 1 without either. Nothing but
// the layouts says where a message ends, so a type that does not exist ends the
// link; there is no message to tell the device why.
class ProtocolV1 final : public LinkProtocol {
 public:
  // |protocol| is 1 or 5.
  ProtocolV1(int protocol, std::string* control);

  bool HandleNext(DeviceMessages& device) override;

  size_t GetMaxDatagramBytes() const override;
  void PutData(std::string* out, uint32_t stream_id,
               const std::string& bytes) override;
  void PutClose(std::string* out, uint32_t stream_id) override;
  void PutWriteAck(std::string* out, uint32_t stream_id) override;
  // In the form in which the application's datagrams came: without |local|
  // when they do not tell it.
  void PutDatagram(std::string* out, const HostAndPort& local,
                   const HostAndPort& remote,
                   const std::string& payload) override;
  void PutUdpFailure(std::string* out, const HostAndPort& local,
                     const HostAndPort& remote,
                     const std::string& request) override;
  void PutNetworkState(std::string* out, int32_t network_id,
                       bool is_metered) override;
  void PutTeardown(std::string*, const std::string&) override {}

 private:
  // A whole message of any size, and as much room behind it.
  static constexpr size_t kBufferBytes = 2 * v1::kMaxMessageBytes;

  enum class State { kNotStarted, kAcknowledged, kReady, kFailed };
  struct push_t {
    uint32_t expected_bytes;
    uint64_t received_bytes;
  };

  room_t MakeRoom() override;
  void OnReceived(size_t count) override { end_ += count; }

  // Whether a message of |type| is not handled yet: with some more bytes the
  // beginning of the link may turn out to be something else.
  bool IsUnclear(uint8_t type) const;
  // |message| is one whole message and |size| its length.
  void Handle(DeviceMessages& device, const char* message, size_t size);
  void HandleHandshake(DeviceMessages& device, uint32_t version);
  void HandleHandshakeDone(DeviceMessages& device);
  void HandlePull(DeviceMessages& device, const char* message);
  void HandlePushRequest(DeviceMessages& device, const char* message);
  void HandlePushData(DeviceMessages& device, const char* message,
                      size_t length);
  void ReportReady(DeviceMessages& device);
  // |reason| is told unless the beginning of the link has a better one.
  void Fail(DeviceMessages& device, const std::string& reason);

  const int protocol_;
  State state_ = State::kNotStarted;
  // What is not handled yet lies between these two.
  size_t begin_ = 0;
  size_t end_ = 0;
  std::array<char, kBufferBytes> buffer_;
  std::unordered_map<uint32_t, push_t> pushes_;
};

}  // namespace vantrel
