#include "companion/protocol_v2.h"

#include <stdint.h>

#include <algorithm>
#include <utility>

#include "link_v2/message_encoder.h"

namespace vantrel {
namespace {

messages::Header MakeHeader(messages::MessageType type) {
  messages::Header header;
  header.set_type(type);
  return header;
}

// Appends nothing when the frame would be too large, which the callers' limits
// exclude.
void PutFrame(std::string* out, const messages::Header& header,
              const std::string& payload) {
  MessageEncoder encoder(header);
  if (encoder.WriteHeader(out, payload)) out->append(payload);
}

// An endpoint that no socket can reach comes out without an address.
HostAndPort DecodeReachable(const messages::IpAddressAndPort& wire) {
  return wire.port() > UINT16_MAX ? HostAndPort() : DecodeEndpoint(wire);
}

}  // namespace

ProtocolV2::ProtocolV2(std::string build_info, std::string* control)
    : LinkProtocol(20, control), build_info_(std::move(build_info)) {}

LinkProtocol::room_t ProtocolV2::MakeRoom() {
  // What the decoder skips needs no room of its own.
  const size_t size = std::min<size_t>(decoder_.GetAvailableBufferSpace(),
                                       kMaxFramePayloadSize);
  return {decoder_.GetRoom(size), size};
}

bool ProtocolV2::HandleNext(DeviceMessages& device) {
  if (state_ == State::kFailed) return false;
  if (state_ == State::kNotStarted && !GetOpening().IsOver()) return false;
  const std::string& fault = GetOpening().GetFault();
  if (state_ == State::kNotStarted && !fault.empty()) {
    GetOpening().IsOtherProtocol() ? Fail(device, fault)
                                   : FailWithTeardown(device, fault);
    return false;
  }
  // Whoever takes a payload may keep it: one of few bytes must not have the
  // memory of a large one before.
  message_.payload = std::string();
  if (decoder_.GetAndClearMessage(&message_)) {
    state_ == State::kNotStarted ? HandleFirst(device) : Handle(device);
    return state_ != State::kFailed;
  }
  if (decoder_.HasFailed()) FailWithTeardown(device, "bad frame magic");
  return false;
}

void ProtocolV2::HandleFirst(DeviceMessages& device) {
  const messages::Header& header = message_.header;
  if (header.type() == messages::HANDSHAKE_START) {
    return HandleHandshakeStart(device, header.handshake_start());
  }
  FailWithTeardown(device, "message type " + std::to_string(header.type()) +
                               " before handshake");
}

void ProtocolV2::Handle(DeviceMessages& device) {
  const messages::Header& header = message_.header;
  switch (header.type()) {
    case messages::HANDSHAKE_DONE:
      HandleHandshakeDone(device);
      return;
    case messages::TCP_CONNECT:
      device.OnConnect(header.tcp_connect().stream_id(),
                       DecodeReachable(header.tcp_connect().destination()),
                       header.tcp_connect().has_uid()
                           ? header.tcp_connect().uid()
                           : kNobodyUid);
      return;
    case messages::TCP_CLOSE:
      device.OnClose(header.tcp_close().stream_id());
      return;
    case messages::TCP_WRITE:
      device.OnData(header.tcp_write().stream_id(),
                    std::move(message_.payload));
      return;
    case messages::UDP_SEND:
      device.OnDatagram(DecodeReachable(header.udp_send().source()),
                        DecodeReachable(header.udp_send().destination()),
                        message_.payload);
      return;
    case messages::PACKAGE_NAMES:
      HandlePackageNames(device);
      return;
    // Only the companion sends these, or nobody.
    case messages::UNSPECIFIED:
    case messages::TEARDOWN:
    case messages::HANDSHAKE_START:
    case messages::HANDSHAKE_ACK:
    case messages::TCP_CONNECT_ACK:
    case messages::TCP_WRITE_ACK:
    case messages::UDP_FAILURE:
    case messages::DNS_SERVERS:
    case messages::NETWORK_STATE:
    case messages::RESERVED_15:
      device.OnUnexpected("message type " + std::to_string(header.type()));
      return;
  }
}

void ProtocolV2::HandleHandshakeStart(
    DeviceMessages& device, const messages::MessageHandshake& handshake) {
  if (handshake.version() != kHandshakeVersionV2) {
    const std::string reason =
        "unsupported handshake version " + std::to_string(handshake.version());
    PutHandshakeAck(kHandshakeRefused, reason);
    return Fail(device, reason);
  }
  state_ = State::kAcknowledged;
  device_build_info_ = handshake.build_info();
  PutHandshakeAck(kHandshakeVersionV2, "");
}

void ProtocolV2::HandleHandshakeDone(DeviceMessages& device) {
  if (state_ == State::kReady) {
    device.OnUnexpected("a second end of the handshake");
    return;
  }
  state_ = State::kReady;
  device.OnReady("protocol 20, device build \"" + device_build_info_ + "\"");
}

void ProtocolV2::HandlePackageNames(DeviceMessages& device) {
  for (const messages::UidAndPackageName& entry :
       message_.header.package_names().entries()) {
    device.OnPackageName(entry.uid(), entry.package_name());
  }
}

void ProtocolV2::FailWithTeardown(DeviceMessages& device,
                                  const std::string& reason) {
  PutTeardown(GetControl(), reason);
  Fail(device, reason);
}

void ProtocolV2::Fail(DeviceMessages& device, const std::string& reason) {
  state_ = State::kFailed;
  device.OnFailure(reason);
}

void ProtocolV2::PutHandshakeAck(uint32_t version, const std::string& error) {
  messages::Header header = MakeHeader(messages::HANDSHAKE_ACK);
  header.mutable_handshake_ack()->set_version(version);
  header.mutable_handshake_ack()->set_build_info(build_info_);
  if (!error.empty()) header.mutable_handshake_ack()->set_error(error);
  PutFrame(GetControl(), header, "");
}

void ProtocolV2::PutData(std::string* out, uint32_t stream_id,
                         const std::string& bytes) {
  messages::Header header = MakeHeader(messages::TCP_WRITE);
  header.mutable_tcp_write()->set_stream_id(stream_id);
  PutFrame(out, header, bytes);
}

void ProtocolV2::PutClose(std::string* out, uint32_t stream_id) {
  messages::Header header = MakeHeader(messages::TCP_CLOSE);
  header.mutable_tcp_close()->set_stream_id(stream_id);
  PutFrame(out, header, "");
}

void ProtocolV2::PutWriteAck(std::string* out, uint32_t stream_id) {
  if (write_ack_.empty() || stream_id != write_ack_stream_id_) {
    messages::Header header = MakeHeader(messages::TCP_WRITE_ACK);
    header.mutable_tcp_write_ack()->set_stream_id(stream_id);
    write_ack_.clear();
    PutFrame(&write_ack_, header, "");
    write_ack_stream_id_ = stream_id;
  }
  out->append(write_ack_);
}

void ProtocolV2::PutDatagram(std::string* out, const HostAndPort& local,
                             const HostAndPort& remote,
                             const std::string& payload) {
  messages::Header header = MakeHeader(messages::UDP_SEND);
  EncodeEndpoint(local, header.mutable_udp_send()->mutable_source());
  EncodeEndpoint(remote, header.mutable_udp_send()->mutable_destination());
  PutFrame(out, header, payload);
}

void ProtocolV2::PutUdpFailure(std::string* out, const HostAndPort& local,
                               const HostAndPort& remote,
                               const std::string& request) {
  messages::Header header = MakeHeader(messages::UDP_FAILURE);
  EncodeEndpoint(local, header.mutable_udp_failure()->mutable_source());
  EncodeEndpoint(remote, header.mutable_udp_failure()->mutable_destination());
  PutFrame(out, header, request);
}

void ProtocolV2::PutNetworkState(std::string* out, int32_t network_id, bool) {
  messages::Header header = MakeHeader(messages::NETWORK_STATE);
  header.mutable_network_state()->set_network_id(
      static_cast<uint32_t>(network_id));
  PutFrame(out, header, "");
}

void ProtocolV2::PutTeardown(std::string* out, const std::string& reason) {
  messages::Header header = MakeHeader(messages::TEARDOWN);
  header.mutable_teardown()->set_reason(reason);
  PutFrame(out, header, "");
}

}  // namespace vantrel
