// The link over protocols 1 and 5: connection, handshake, dispatch and output.
#include "link/bluetooth_socket.h"

#include <string.h>

#include <algorithm>
#include <utility>

#include "common/byte_order.h"
#include "common/log.h"
#include "link/connection_header.h"

namespace vantrel {
namespace {

constexpr uint32_t kMaxUdpConduits = 128;

}  // namespace

BluetoothSocket::BluetoothSocket(ProxySocket::Delegate* delegate,
                                 Reactor& reactor, Flags flags,
                                 UdpConduitFactory udp_conduit_factory)
    : delegate_(delegate),
      reactor_(reactor),
      input_(*this, reactor, "BluetoothSocket"),
      output_(*this, reactor),
      udp_conduits_(kMaxUdpConduits, reactor, std::move(udp_conduit_factory)),
      udp_v1_conduits_(kMaxUdpConduits),
      measurements_(
          [this](PacketBytes packet) { AddToWriteBuffer(std::move(packet)); }),
      flags_(flags) {}

BluetoothSocket::~BluetoothSocket() {
  reactor_.Unregister(*this, Reactor::kRead);
  reactor_.Unregister(*this, Reactor::kWrite);
  LOGD("[B] Total bytes RX/TX: %zu/%zu", static_cast<size_t>(rx_bytes_),
       output_.GetTotalWrittenByteCount());
}

bool BluetoothSocket::Connect(int fd) {
  if (!IsUsableLinkDescriptor(fd)) return false;
  SetFd(fd);
  LOGD("connect: fd: %d", fd);
  connection_header_t header;
  if (!ReceiveConnectionHeader(*this, &header)) return false;
  output_.SetMaxWriteSize(header.max_tx_size);
  if ((flags_ & FLAG_HANDSHAKE) != 0) {
    StartHandshake();
  } else {
    handshake_state_ = HandshakeState::kDone;
  }
  reactor_.Register(*this, Reactor::kRead);
  return true;
}

void BluetoothSocket::StartHandshake() {
  AddToWriteBuffer(
      PacketBytes(v1::Handshake(TYPE_HANDSHAKE, v1::kHandshakeVersion)));
  handshake_state_ = HandshakeState::kSent;
  LOGI("[B] Start handshake: %d", static_cast<int>(v1::kHandshakeVersion));
}

size_t BluetoothSocket::HandleHandshakeAck(const char* data, size_t length) {
  // Only the header has to be there: the payload is skipped unread, whenever
  // it comes.
  const size_t size = v1::GetMessageSize(data, length);
  if (size == 0) return 0;
  const uint32_t version = v1::GetVersion(data);
  if (handshake_state_ == HandshakeState::kSent &&
      version == v1::kHandshakeVersion) {
    AddToWriteBuffer(PacketBytes(v1::Handshake(TYPE_HANDSHAKE_DONE, version)));
    handshake_state_ = HandshakeState::kDone;
    LOGI("[B] Handshake Done: %d", static_cast<int>(version));
    return size;
  }
  // Any state but "sent" fails, also a second acknowledgement: whoever sends
  // it is not in step with this end.
  LOGE("[B] Unexpected handshake ACK %d", static_cast<int>(version));
  handshake_state_ = HandshakeState::kFailed;
  reactor_.Stop();
  delegate_->HandleTeardown();
  return size;
}

void BluetoothSocket::OnReadReady() {
  // One byte less than the buffer holds. Kept for compatibility: so many bytes
  // that make no message end the link.
  const auto get_room = [this]() -> LinkInput::room_t {
    return {receive_buffer_.data() + receive_fill_,
            receive_buffer_.size() - 1 - receive_fill_};
  };
  input_.ReadTurn(get_room, [this](size_t count) {
    rx_bytes_ += static_cast<uint32_t>(count);
    receive_fill_ += count;
    ProcessReceived();
  });
}

void BluetoothSocket::ProcessReceived() {
  char* const begin = receive_buffer_.data();
  size_t done = std::min(receive_skip_, receive_fill_);
  receive_skip_ -= done;
  while (true) {
    const size_t left = receive_fill_ - done;
    const size_t consumed = ProcessMessage(begin + done, left);
    if (consumed == 0) break;
    const size_t held = std::min(consumed, left);
    receive_skip_ += consumed - held;
    done += held;
  }
  receive_fill_ -= done;
  memmove(begin, begin + done, receive_fill_);
}

size_t BluetoothSocket::ProcessMessage(const char* data, size_t length) {
  if (length == 0) return 0;
  const uint8_t type = GetU8(data);
  uint32_t charged_uid = PacketBytes::kNobody;
  size_t consumed;
  if (type == TYPE_PULL_REQUEST) {
    // Left at the front of the buffer: nothing behind it is ever processed,
    // and the link ends once the buffer is full. Kept for compatibility.
    LOGE("[B] Push from vantrel is unsupported.");
    return 0;
  }
  if (type == TYPE_ACTIVE_NETWORK_STATE) {
    consumed = HandleActiveNetworkState(data, length);
  } else if (type == TYPE_HANDSHAKE_ACK) {
    LOGD("[B] TYPE_HANDSHAKE_ACK %zu", length);
    consumed = HandleHandshakeAck(data, length);
  } else if (v1::IsFromCompanion(type)) {
    consumed = v1::GetMessageSize(data, length);
    if (consumed == 0 || length < consumed) return 0;
    charged_uid = DispatchMessage(data, consumed);
  } else {
    LOGE("[B] Skipping unknown message type %u", type);
    consumed = 1;
  }
  uid_usage_.AddRxBytes(charged_uid, static_cast<uint32_t>(consumed));
  return consumed;
}

uint32_t BluetoothSocket::DispatchMessage(const char* data, size_t size) {
  switch (GetU8(data)) {
    case TYPE_TCP_CLOSE:
      return HandleTcpClose(data);
    case TYPE_TCP_DATA:
      return HandleTcpData(data, size);
    case TYPE_UDP_DATAGRAM:
    case TYPE_UDP_FAILURE:
      return HandleDatagramV1(data, size);
    case TYPE_UDP_DATAGRAM_V2:
    case TYPE_UDP_FAILURE_V2:
      return HandleDatagramV2(data, size);
    case TYPE_PING_ECHO:
      measurements_.HandlePingEcho(data);
      break;
    case TYPE_TCP_WRITE_ACK:
      HandleTcpWriteAck(data);
      break;
    case TYPE_PULL_DATA:
      measurements_.HandlePullData(data, size);
      break;
  }
  return PacketBytes::kNobody;
}

size_t BluetoothSocket::HandleActiveNetworkState(const char* data,
                                                 size_t length) {
  LOGD("[B] TYPE_ACTIVE_NETWORK_STATE");
  const size_t size = v1::GetMessageSize(data, length);
  if (size == 0) return 0;
  const int32_t network_id = v1::GetNetworkId(data);
  LOGD("[B] network_id: %d, is_metered: %d", network_id, GetU8(data + 5));
  delegate_->HandleActiveNetworkStateChange(network_id, v1::GetIsMetered(data));
  return size;
}

void BluetoothSocket::AddToWriteBuffer(PacketBytes packet) {
  if (packet.Empty()) {
    LOGD("[B] Ignoring empty packet");
    return;
  }
  uid_usage_.AddTxBytes(packet.Uid(), static_cast<uint32_t>(packet.Length()));
  output_.Append(packet.TakeBytes());
}

void BluetoothSocket::OnWriteReady() {
  bool keep_writing = false;
  if (!QueueStreamData()) {
    keep_writing = true;
  } else if (!output_.IsCongested() && measurements_.IsPushing()) {
    measurements_.QueuePushData();
    keep_writing = true;
  }
  output_.DrainAndRest(keep_writing);
}

void BluetoothSocket::GetTransferStats(MessageUidTransferStatsInfo* out) {
  if (uid_usage_.Empty()) {
    LOGD("uid usage empty");
    return;
  }
  for (auto it = uid_usage_.Begin(); it != uid_usage_.End(); ++it) {
    auto* const stats = out->add_uid_transfer_stats();
    stats->set_uid(it->first);
    stats->set_rx_bytes(it->second.rx_bytes);
    stats->set_tx_bytes(it->second.tx_bytes);
    uid_usage_since_boot_.AddRxAndTxBytes(it->first, it->second.rx_bytes,
                                          it->second.tx_bytes);
  }
  uid_usage_.Clear();
}

void BluetoothSocket::Dump(std::stringstream& out) const {
  out << "Bluetooth socket state:" << std::endl;
  output_.Dump(out, rx_bytes_);
  out << std::endl;
  streams_.Dump(out);
  out << "UID usage since last transfer stats request:" << std::endl;
  uid_usage_.Dump(out);
  out << "UID usage since vantrel boot (excluding usage since last stats "
         "request):"
      << std::endl;
  uid_usage_since_boot_.Dump(out);
}

}  // namespace vantrel
