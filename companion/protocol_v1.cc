#include "companion/protocol_v1.h"

#include <string.h>

#include <memory>

#include "common/byte_order.h"
#include "companion/pull_transfer.h"

namespace vantrel {
namespace {

// Tests of the link that run at the same time.
constexpr size_t kMaxPushes = 64;
// The low half of the UID that stands for an unknown one.
constexpr uint16_t kUnknownUidOnWire = 0xFFFF;

uint32_t WidenUid(uint16_t uid) {
  return uid == kUnknownUidOnWire ? kNobodyUid : uid;
}

}  // namespace

ProtocolV1::ProtocolV1(int protocol, std::string* control)
    : LinkProtocol(protocol, control), protocol_(protocol) {}

LinkProtocol::room_t ProtocolV1::MakeRoom() {
  if (begin_ == end_ || end_ > buffer_.size() / 2) {
    memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  return {buffer_.data() + end_, buffer_.size() - end_};
}

bool ProtocolV1::HandleNext(DeviceMessages& device) {
  if (state_ == State::kNotStarted && protocol_ == 1) {
    ReportReady(device);
    return true;
  }
  const char* const next = buffer_.data() + begin_;
  const size_t left = end_ - begin_;
  if (state_ == State::kFailed) return false;
  if (left > 0 && IsUnclear(GetU8(next))) return false;
  if (left > 0 && v1::GetHeaderSize(GetU8(next)) == 0) {
    Fail(device, "unknown message type " + std::to_string(GetU8(next)));
    return false;
  }
  const size_t size = v1::GetMessageSize(next, left);
  if (size == 0 || size > left) return false;
  begin_ += size;
  Handle(device, next, size);
  return state_ != State::kFailed;
}

// Protocol 1 lets a device begin with any message that exists.
bool ProtocolV1::IsUnclear(uint8_t type) const {
  if (GetOpening().IsOver()) return false;
  return state_ == State::kNotStarted || type == TYPE_HANDSHAKE ||
         v1::GetHeaderSize(type) == 0;
}

void ProtocolV1::Handle(DeviceMessages& device, const char* message,
                        size_t size) {
  const auto type = static_cast<MessageTypeV1>(GetU8(message));
  const size_t header_size = v1::GetHeaderSize(type);
  const char* const payload = message + header_size;
  const size_t length = size - header_size;
  if (state_ == State::kNotStarted && type != TYPE_HANDSHAKE) {
    return Fail(device, "message type " + std::to_string(type) +
                            " before handshake: the device speaks protocol 1");
  }
  switch (type) {
    case TYPE_HANDSHAKE:
      HandleHandshake(device, v1::GetVersion(message));
      return;
    case TYPE_HANDSHAKE_DONE:
      HandleHandshakeDone(device);
      return;
    case TYPE_TCP_CONNECT:
      device.OnConnect(v1::GetId(message), v1::GetConnectRemote(message),
                       WidenUid(v1::GetConnectUid(message)));
      return;
    case TYPE_TCP_CLOSE:
      device.OnClose(v1::GetId(message));
      return;
    case TYPE_TCP_DATA:
      device.OnData(v1::GetId(message), std::string(payload, length));
      return;
    case TYPE_UDP_DATAGRAM:
      device.OnDatagram(HostAndPort(), v1::GetDatagramRemote(message),
                        std::string(payload, length));
      return;
    case TYPE_UDP_DATAGRAM_V2:
      device.OnDatagram(v1::GetDatagramV2Local(message),
                        v1::GetDatagramV2Remote(message),
                        std::string(payload, length));
      return;
    case TYPE_PACKAGE_NAME:
      device.OnPackageName(WidenUid(v1::GetPackageUid(message)),
                           std::string(payload, length));
      return;
    case TYPE_PING_ECHO:
      GetControl()->append(message, size);
      return;
    case TYPE_PULL_REQUEST:
      HandlePull(device, message);
      return;
    case TYPE_PUSH_REQUEST:
      HandlePushRequest(device, message);
      return;
    case TYPE_PUSH_DATA:
      HandlePushData(device, message, length);
      return;
    // Only the companion sends these.
    case TYPE_TCP_WRITE_ACK:
    case TYPE_UDP_FAILURE:
    case TYPE_PULL_DATA:
    case TYPE_ACTIVE_NETWORK_STATE:
    case TYPE_UDP_FAILURE_V2:
    case TYPE_HANDSHAKE_ACK:
      device.OnUnexpected("message type " + std::to_string(type));
      return;
  }
}

void ProtocolV1::HandleHandshake(DeviceMessages& device, uint32_t version) {
  // A refusal is the acknowledgement of a version that the device did not ask
  // for: it ends the link itself then.
  if (protocol_ == 1) {
    GetControl()->append(v1::Handshake(TYPE_HANDSHAKE_ACK, 1));
    return Fail(device, "a handshake: the device speaks protocol 5");
  }
  if (state_ != State::kNotStarted) {
    device.OnUnexpected("a second handshake");
    return;
  }
  GetControl()->append(
      v1::Handshake(TYPE_HANDSHAKE_ACK, v1::kHandshakeVersion));
  if (version != v1::kHandshakeVersion) {
    return Fail(device, GetOpening().GetFault());
  }
  state_ = State::kAcknowledged;
}

void ProtocolV1::HandleHandshakeDone(DeviceMessages& device) {
  if (state_ == State::kAcknowledged) return ReportReady(device);
  device.OnUnexpected("a second end of the handshake");
}

void ProtocolV1::HandlePull(DeviceMessages& device, const char* message) {
  const uint32_t id = v1::GetId(message);
  const uint32_t bytes = v1::GetRequestedBytes(message);
  device.OnNotice("pull " + std::to_string(id) + ": sending " +
                  std::to_string(bytes) + " bytes");
  device.OnTransfer(std::make_unique<PullTransfer>(id, bytes));
}

void ProtocolV1::HandlePushRequest(DeviceMessages& device,
                                   const char* message) {
  const uint32_t id = v1::GetId(message);
  const uint32_t bytes = v1::GetRequestedBytes(message);
  if (pushes_.size() >= kMaxPushes) {
    device.OnUnexpected("one more push");
    return;
  }
  pushes_[id] = push_t{bytes, 0};
  device.OnNotice("push " + std::to_string(id) + ": expecting " +
                  std::to_string(bytes) + " bytes");
}

void ProtocolV1::HandlePushData(DeviceMessages& device, const char* message,
                                size_t length) {
  const auto found = pushes_.find(v1::GetId(message));
  if (found == pushes_.end()) {
    device.OnUnexpected("data of no push");
    return;
  }
  push_t& push = found->second;
  push.received_bytes += length;
  if (push.received_bytes < push.expected_bytes) return;
  device.OnNotice("push " + std::to_string(found->first) + ": received " +
                  std::to_string(push.received_bytes) + " bytes");
  pushes_.erase(found);
}

void ProtocolV1::ReportReady(DeviceMessages& device) {
  state_ = State::kReady;
  device.OnReady("protocol " + std::to_string(protocol_));
}

void ProtocolV1::Fail(DeviceMessages& device, const std::string& reason) {
  state_ = State::kFailed;
  const std::string& fault = GetOpening().GetFault();
  device.OnFailure(fault.empty() ? reason : fault);
}

size_t ProtocolV1::GetMaxDatagramBytes() const { return v1::kMaxPayloadBytes; }

void ProtocolV1::PutData(std::string* out, uint32_t stream_id,
                         const std::string& bytes) {
  out->append(v1::TcpData(stream_id, bytes.size())).append(bytes);
}

void ProtocolV1::PutClose(std::string* out, uint32_t stream_id) {
  out->append(v1::TcpClose(stream_id));
}

void ProtocolV1::PutWriteAck(std::string* out, uint32_t stream_id) {
  out->append(v1::TcpWriteAck(stream_id));
}

void ProtocolV1::PutDatagram(std::string* out, const HostAndPort& local,
                             const HostAndPort& remote,
                             const std::string& payload) {
  // The daemon does not read the uid.
  out->append(local.host.GetFamily() == 0
                  ? v1::UdpDatagram(TYPE_UDP_DATAGRAM, remote, payload.size())
                  : v1::UdpDatagramV2(local, remote, 0, payload.size()))
      .append(payload);
}

void ProtocolV1::PutUdpFailure(std::string* out, const HostAndPort& local,
                               const HostAndPort& remote,
                               const std::string& request) {
  out->append(local.host.GetFamily() == 0
                  ? v1::UdpDatagram(TYPE_UDP_FAILURE, remote, request.size())
                  : v1::UdpFailureV2(local, remote, request.size()))
      .append(request);
}

void ProtocolV1::PutNetworkState(std::string* out, int32_t network_id,
                                 bool is_metered) {
  out->append(v1::ActiveNetworkState(network_id, is_metered));
}

}  // namespace vantrel
