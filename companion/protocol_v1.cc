#include "companion/protocol_v1.h"

#include <algorithm>
#include <utility>

#include "common/byte_order.h"
#include "link/v1_wire.h"

namespace vantrel {
namespace {

constexpr uint32_t kHandshakeVersion = 5;
// A whole message of any size and the beginning of the next.
constexpr size_t kMaxHeldBytes = 2 * v1::kMaxMessageBytes;
// Tests of the link that run at the same time, of each kind.
constexpr size_t kMaxTransfers = 64;
// The low half of the UID that stands for an unknown one.
constexpr uint16_t kUnknownUidOnWire = 0xFFFF;

uint32_t WidenUid(uint16_t uid) {
  return uid == kUnknownUidOnWire ? LinkEvent::kUnknownUid : uid;
}

}  // namespace

ProtocolV1::ProtocolV1(int version)
    : version_(version),
      state_(version == 1 ? State::kRunning : State::kExpectsHandshake) {
  if (state_ == State::kRunning) AddReady();
}

size_t ProtocolV1::GetAvailableSpace() const {
  return kMaxHeldBytes - received_.size();
}

void ProtocolV1::Feed(const char* data, size_t length) {
  received_.append(data, length);
}

bool ProtocolV1::GetNextEvent(LinkEvent* out) {
  while (events_.empty() && state_ != State::kFailed) {
    const char* next = received_.data() + handled_;
    const size_t left = received_.size() - handled_;
    if (left > 0 && v1::GetHeaderSize(GetU8(next)) == 0) {
      Fail("unknown message type " + std::to_string(GetU8(next)), "");
      break;
    }
    const size_t size = v1::GetMessageSize(next, left);
    if (size == 0 || size > left) {
      received_.erase(0, handled_);
      handled_ = 0;
      return false;
    }
    HandleMessage(next, size);
    handled_ += size;
  }
  if (events_.empty()) return false;
  *out = std::move(events_.front());
  events_.pop_front();
  return true;
}

void ProtocolV1::HandleMessage(const char* message, size_t size) {
  const uint8_t type = GetU8(message);
  const size_t header_size = v1::GetHeaderSize(type);
  const std::string payload(message + header_size, size - header_size);
  if (type == TYPE_HANDSHAKE) return HandleHandshake(v1::GetVersion(message));
  if (state_ == State::kExpectsHandshake) {
    return Fail("message type " + std::to_string(type) + " before handshake",
                "");
  }
  switch (type) {
    case TYPE_HANDSHAKE_DONE:
      return AddReady();
    case TYPE_TCP_CONNECT:
      return HandleConnect(message);
    case TYPE_TCP_CLOSE:
      AddEvent(LinkEvent::Type::kClose).stream_id = v1::GetId(message);
      return;
    case TYPE_TCP_DATA: {
      LinkEvent& event = AddEvent(LinkEvent::Type::kData);
      event.stream_id = v1::GetId(message);
      event.bytes = payload;
      return;
    }
    case TYPE_UDP_DATAGRAM: {
      LinkEvent& event = AddEvent(LinkEvent::Type::kDatagram);
      event.remote = v1::GetDatagramRemote(message);
      event.bytes = payload;
      return;
    }
    case TYPE_UDP_DATAGRAM_V2: {
      LinkEvent& event = AddEvent(LinkEvent::Type::kDatagram);
      event.local = v1::GetDatagramV2Local(message);
      event.remote = v1::GetDatagramV2Remote(message);
      event.bytes = payload;
      return;
    }
    case TYPE_PACKAGE_NAME: {
      LinkEvent& event = AddEvent(LinkEvent::Type::kPackageName);
      event.uid = WidenUid(v1::GetPackageUid(message));
      event.text = payload;
      return;
    }
    case TYPE_PING_ECHO:
      AddEvent(LinkEvent::Type::kReply).bytes.assign(message, size);
      return;
    case TYPE_PULL_REQUEST:
      return HandlePull(message);
    case TYPE_PUSH_REQUEST:
      return HandlePushRequest(message);
    case TYPE_PUSH_DATA:
      return HandlePushData(message, payload.size());
    default:
      return AddUnexpected(type);
  }
}

void ProtocolV1::HandleHandshake(uint32_t version) {
  if (state_ == State::kRunning && version_ != 1) {
    return AddUnexpected(TYPE_HANDSHAKE);
  }
  // A refusal is the acknowledgement of a version that the device did not ask
  // for: it ends the link itself then.
  if (version_ == 1) {
    return Fail("the daemon was started with version 5",
                v1::Handshake(TYPE_HANDSHAKE_ACK, 1));
  }
  std::string ack = v1::Handshake(TYPE_HANDSHAKE_ACK, kHandshakeVersion);
  if (version != kHandshakeVersion) {
    return Fail("unsupported handshake version " + std::to_string(version),
                std::move(ack));
  }
  state_ = State::kRunning;
  AddEvent(LinkEvent::Type::kReply).bytes = std::move(ack);
}

void ProtocolV1::HandleConnect(const char* message) {
  LinkEvent& event = AddEvent(LinkEvent::Type::kConnect);
  event.stream_id = v1::GetId(message);
  event.remote = v1::GetConnectRemote(message);
  event.uid = WidenUid(v1::GetConnectUid(message));
}

void ProtocolV1::HandlePull(const char* message) {
  if (pulls_.size() >= kMaxTransfers) return AddUnexpected(TYPE_PULL_REQUEST);
  const uint32_t id = v1::GetId(message);
  const uint32_t bytes = v1::GetRequestedBytes(message);
  pulls_.push_back({id, bytes});
  AddEvent(LinkEvent::Type::kNotice).text = "pull " + std::to_string(id) +
                                            ": sending " +
                                            std::to_string(bytes) + " bytes";
}

// Also a pull of no bytes is answered with one message: it completes by that.
bool ProtocolV1::GetNextBulk(std::string* out) {
  if (pulls_.empty()) return false;
  pull_t pull = pulls_.front();
  pulls_.pop_front();
  const size_t length = std::min<size_t>(pull.left_bytes, kMaxStreamChunkBytes);
  *out = v1::TransferData(TYPE_PULL_DATA, pull.id, length) +
         std::string(length, 'b');
  pull.left_bytes -= static_cast<uint32_t>(length);
  if (pull.left_bytes > 0) pulls_.push_back(pull);
  return true;
}

void ProtocolV1::HandlePushRequest(const char* message) {
  if (pushes_.size() >= kMaxTransfers) return AddUnexpected(TYPE_PUSH_REQUEST);
  const uint32_t id = v1::GetId(message);
  const uint32_t bytes = v1::GetRequestedBytes(message);
  pushes_[id] = push_t{bytes, 0};
  AddEvent(LinkEvent::Type::kNotice).text = "push " + std::to_string(id) +
                                            ": expecting " +
                                            std::to_string(bytes) + " bytes";
}

void ProtocolV1::HandlePushData(const char* message, size_t length) {
  const auto found = pushes_.find(v1::GetId(message));
  if (found == pushes_.end()) return AddUnexpected(TYPE_PUSH_DATA);
  push_t& push = found->second;
  push.received_bytes += length;
  if (push.received_bytes < push.expected_bytes) return;
  AddEvent(LinkEvent::Type::kNotice).text =
      "push " + std::to_string(found->first) + ": received " +
      std::to_string(push.received_bytes) + " bytes";
  pushes_.erase(found);
}

LinkEvent& ProtocolV1::AddEvent(LinkEvent::Type type) {
  events_.emplace_back();
  events_.back().type = type;
  return events_.back();
}

void ProtocolV1::AddReady() {
  AddEvent(LinkEvent::Type::kReady).text =
      "protocol " + std::to_string(version_);
}

void ProtocolV1::AddUnexpected(uint8_t type) {
  AddEvent(LinkEvent::Type::kUnexpected).text =
      "message type " + std::to_string(type);
}

void ProtocolV1::Fail(const std::string& reason, std::string farewell) {
  state_ = State::kFailed;
  LinkEvent& event = AddEvent(LinkEvent::Type::kFatal);
  event.text = reason;
  event.bytes = std::move(farewell);
}

size_t ProtocolV1::GetMaxDatagramBytes() const { return v1::kMaxPayloadBytes; }

std::string ProtocolV1::EncodeData(uint32_t stream_id,
                                   const std::string& bytes) const {
  return v1::TcpData(stream_id, bytes.size()) + bytes;
}

std::string ProtocolV1::EncodeClose(uint32_t stream_id) const {
  return v1::TcpClose(stream_id);
}

std::string ProtocolV1::EncodeWriteAck(uint32_t stream_id) const {
  return v1::TcpWriteAck(stream_id);
}

std::string ProtocolV1::EncodeDatagram(const HostAndPort& local,
                                       const HostAndPort& remote,
                                       const std::string& payload) const {
  if (local.host.GetFamily() == 0) {
    return v1::UdpDatagram(TYPE_UDP_DATAGRAM, remote, payload.size()) + payload;
  }
  // The daemon does not read the uid.
  return v1::UdpDatagramV2(local, remote, 0, payload.size()) + payload;
}

std::string ProtocolV1::EncodeUdpFailure(const HostAndPort& local,
                                         const HostAndPort& remote,
                                         const std::string& request) const {
  if (local.host.GetFamily() == 0) {
    return v1::UdpDatagram(TYPE_UDP_FAILURE, remote, request.size()) + request;
  }
  return v1::UdpFailureV2(local, remote, request.size()) + request;
}

std::string ProtocolV1::EncodeNetworkState(int32_t network_id,
                                           bool is_metered) const {
  return v1::ActiveNetworkState(network_id, is_metered);
}

std::string ProtocolV1::EncodeTeardown(const std::string&) const { return ""; }

}  // namespace vantrel
