#pragma once

#include <stdint.h>

#include <deque>
#include <string>
#include <unordered_map>

#include "companion/link_protocol.h"

namespace vantrel {

// Link protocol 1 in both its forms: version 5 with a handshake and with the
// application's endpoint in every datagram, version 1 without either. Nothing
// but the layouts says where a message ends, so a type that does not exist
// ends the link; there is no message to tell the device why.
class ProtocolV1 : public LinkProtocol {
 public:
  // |version| is 1 or 5.
  explicit ProtocolV1(int version);

  size_t GetAvailableSpace() const override;
  void Feed(const char* data, size_t length) override;
  bool GetNextEvent(LinkEvent* out) override;
  bool GetNextBulk(std::string* out) override;

  size_t GetMaxDatagramBytes() const override;
  std::string EncodeData(uint32_t stream_id,
                         const std::string& bytes) const override;
  std::string EncodeClose(uint32_t stream_id) const override;
  std::string EncodeWriteAck(uint32_t stream_id) const override;
  // In the form in which the application's datagrams came: without |local|
  // when they do not tell it.
  std::string EncodeDatagram(const HostAndPort& local,
                             const HostAndPort& remote,
                             const std::string& payload) const override;
  std::string EncodeUdpFailure(const HostAndPort& local,
                               const HostAndPort& remote,
                               const std::string& request) const override;
  std::string EncodeNetworkState(int32_t network_id,
                                 bool is_metered) const override;
  std::string EncodeTeardown(const std::string& reason) const override;

 private:
  enum class State { kExpectsHandshake, kRunning, kFailed };
  struct pull_t {
    uint32_t id;
    uint32_t left_bytes;
  };
  struct push_t {
    uint32_t expected_bytes;
    uint64_t received_bytes;
  };

  // |message| is one whole message and |size| its length.
  void HandleMessage(const char* message, size_t size);
  void HandleHandshake(uint32_t version);
  void HandleConnect(const char* message);
  void HandlePull(const char* message);
  void HandlePushRequest(const char* message);
  void HandlePushData(const char* message, size_t length);
  LinkEvent& AddEvent(LinkEvent::Type type);
  void AddReady();
  void AddUnexpected(uint8_t type);
  void Fail(const std::string& reason, std::string farewell);

  const int version_;
  State state_;
  std::string received_;
  size_t handled_ = 0;  // bytes of |received_|
  std::deque<LinkEvent> events_;
  std::deque<pull_t> pulls_;  // take turns
  std::unordered_map<uint32_t, push_t> pushes_;
};

}  // namespace vantrel
