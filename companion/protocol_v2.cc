#include "companion/protocol_v2.h"

#include <utility>

#include "link_v2/message_encoder.h"

namespace vantrel {
namespace {

constexpr uint32_t kVersion = 1;
// Stands in place of a version: the companion refuses the handshake.
constexpr uint32_t kHandshakeErrorVersion = 65535;

messages::Header MakeHeader(messages::MessageType type) {
  messages::Header header;
  header.set_type(type);
  return header;
}

// Empty when the frame would be too large, which the callers' limits exclude.
std::string EncodeFrame(const messages::Header& header,
                        const std::string& payload) {
  std::string frame;
  MessageEncoder encoder(header);
  if (!encoder.WriteHeader(&frame, payload)) return "";
  return frame + payload;
}

// An endpoint that no socket can reach comes out without an address.
HostAndPort GetEndpoint(const messages::IpAddressAndPort& wire) {
  if (wire.port() > 65535) return HostAndPort();
  return HostAndPort(IpAddress::FromNetworkBytes(wire.address()),
                     static_cast<uint16_t>(wire.port()));
}

void PutEndpoint(const HostAndPort& endpoint,
                 messages::IpAddressAndPort* wire) {
  wire->set_address(endpoint.host.ToNetworkBytes());
  wire->set_port(endpoint.port);
}

}  // namespace

ProtocolV2::ProtocolV2(std::string build_info)
    : build_info_(std::move(build_info)) {}

size_t ProtocolV2::GetAvailableSpace() const {
  return decoder_.GetAvailableBufferSpace();
}

void ProtocolV2::Feed(const char* data, size_t length) {
  unsigned int consumed;  // all, within the space available
  decoder_.BufferData(data, static_cast<unsigned int>(length), &consumed);
}

bool ProtocolV2::GetNextEvent(LinkEvent* out) {
  MessageDecoder::Message message;
  while (events_.empty() && state_ != State::kFailed) {
    if (decoder_.GetAndClearMessage(&message)) {
      HandleMessage(&message);
    } else if (decoder_.HasFailed()) {
      const std::string reason = "bad frame magic";
      Fail(reason, EncodeTeardown(reason));
    } else {
      return false;
    }
  }
  if (events_.empty()) return false;
  *out = std::move(events_.front());
  events_.pop_front();
  return true;
}

void ProtocolV2::HandleMessage(MessageDecoder::Message* message) {
  const messages::Header& header = message->header;
  if (state_ == State::kNotStarted) {
    if (header.type() == messages::HANDSHAKE_START) {
      return HandleHandshakeStart(header.handshake_start());
    }
    const std::string reason =
        "message type " + std::to_string(header.type()) + " before handshake";
    return Fail(reason, EncodeTeardown(reason));
  }
  switch (header.type()) {
    case messages::HANDSHAKE_DONE:
      return HandleHandshakeDone();
    case messages::TCP_CONNECT: {
      LinkEvent& event = AddEvent(LinkEvent::Type::kConnect);
      event.stream_id = header.tcp_connect().stream_id();
      event.remote = GetEndpoint(header.tcp_connect().destination());
      if (header.tcp_connect().has_uid()) {
        event.uid = header.tcp_connect().uid();
      }
      return;
    }
    case messages::TCP_CLOSE:
      AddEvent(LinkEvent::Type::kClose).stream_id =
          header.tcp_close().stream_id();
      return;
    case messages::TCP_WRITE: {
      LinkEvent& event = AddEvent(LinkEvent::Type::kData);
      event.stream_id = header.tcp_write().stream_id();
      event.bytes = std::move(message->payload);
      return;
    }
    case messages::UDP_SEND: {
      LinkEvent& event = AddEvent(LinkEvent::Type::kDatagram);
      event.local = GetEndpoint(header.udp_send().source());
      event.remote = GetEndpoint(header.udp_send().destination());
      event.bytes = std::move(message->payload);
      return;
    }
    case messages::PACKAGE_NAMES:
      return HandlePackageNames(header.package_names());
    default:
      return AddUnexpected(header);
  }
}

void ProtocolV2::HandleHandshakeStart(
    const messages::MessageHandshake& handshake) {
  if (handshake.version() != kVersion) {
    const std::string reason =
        "unsupported handshake version " + std::to_string(handshake.version());
    return Fail(reason, EncodeHandshakeAck(kHandshakeErrorVersion, reason));
  }
  state_ = State::kAcknowledged;
  device_build_info_ = handshake.build_info();
  AddEvent(LinkEvent::Type::kReply).bytes = EncodeHandshakeAck(kVersion, "");
}

void ProtocolV2::HandleHandshakeDone() {
  if (state_ == State::kReady) {
    return AddUnexpected(MakeHeader(messages::HANDSHAKE_DONE));
  }
  state_ = State::kReady;
  AddEvent(LinkEvent::Type::kReady).text =
      "protocol 20, device build \"" + device_build_info_ + "\"";
}

void ProtocolV2::HandlePackageNames(
    const messages::MessagePackageNames& names) {
  for (const messages::UidAndPackageName& entry : names.entries()) {
    LinkEvent& event = AddEvent(LinkEvent::Type::kPackageName);
    event.uid = entry.uid();
    event.text = entry.package_name();
  }
}

LinkEvent& ProtocolV2::AddEvent(LinkEvent::Type type) {
  events_.emplace_back();
  events_.back().type = type;
  return events_.back();
}

void ProtocolV2::AddUnexpected(const messages::Header& header) {
  AddEvent(LinkEvent::Type::kUnexpected).text =
      "message type " + std::to_string(header.type());
}

void ProtocolV2::Fail(const std::string& reason, std::string farewell) {
  state_ = State::kFailed;
  LinkEvent& event = AddEvent(LinkEvent::Type::kFatal);
  event.text = reason;
  event.bytes = std::move(farewell);
}

std::string ProtocolV2::EncodeHandshakeAck(uint32_t version,
                                           const std::string& error) const {
  messages::Header header = MakeHeader(messages::HANDSHAKE_ACK);
  header.mutable_handshake_ack()->set_version(version);
  header.mutable_handshake_ack()->set_build_info(build_info_);
  if (!error.empty()) header.mutable_handshake_ack()->set_error(error);
  return EncodeFrame(header, "");
}

std::string ProtocolV2::EncodeData(uint32_t stream_id,
                                   const std::string& bytes) const {
  messages::Header header = MakeHeader(messages::TCP_WRITE);
  header.mutable_tcp_write()->set_stream_id(stream_id);
  return EncodeFrame(header, bytes);
}

std::string ProtocolV2::EncodeClose(uint32_t stream_id) const {
  messages::Header header = MakeHeader(messages::TCP_CLOSE);
  header.mutable_tcp_close()->set_stream_id(stream_id);
  return EncodeFrame(header, "");
}

std::string ProtocolV2::EncodeWriteAck(uint32_t stream_id) const {
  messages::Header header = MakeHeader(messages::TCP_WRITE_ACK);
  header.mutable_tcp_write_ack()->set_stream_id(stream_id);
  return EncodeFrame(header, "");
}

std::string ProtocolV2::EncodeDatagram(const HostAndPort& local,
                                       const HostAndPort& remote,
                                       const std::string& payload) const {
  messages::Header header = MakeHeader(messages::UDP_SEND);
  PutEndpoint(local, header.mutable_udp_send()->mutable_source());
  PutEndpoint(remote, header.mutable_udp_send()->mutable_destination());
  return EncodeFrame(header, payload);
}

std::string ProtocolV2::EncodeUdpFailure(const HostAndPort& local,
                                         const HostAndPort& remote,
                                         const std::string& request) const {
  messages::Header header = MakeHeader(messages::UDP_FAILURE);
  PutEndpoint(local, header.mutable_udp_failure()->mutable_source());
  PutEndpoint(remote, header.mutable_udp_failure()->mutable_destination());
  return EncodeFrame(header, request);
}

std::string ProtocolV2::EncodeNetworkState(int32_t network_id, bool) const {
  messages::Header header = MakeHeader(messages::NETWORK_STATE);
  header.mutable_network_state()->set_network_id(
      static_cast<uint32_t>(network_id));
  return EncodeFrame(header, "");
}

std::string ProtocolV2::EncodeTeardown(const std::string& reason) const {
  messages::Header header = MakeHeader(messages::TEARDOWN);
  header.mutable_teardown()->set_reason(reason);
  return EncodeFrame(header, "");
}

}  // namespace vantrel
