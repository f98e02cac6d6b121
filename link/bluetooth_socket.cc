// The link over protocol 1: connection and handshake.
#include "link/bluetooth_socket.h"

#include <utility>

#include "common/byte_order.h"
#include "common/log.h"
#include "link/connection_header.h"

namespace vantrel {
namespace {

constexpr uint32_t kMaxUdpConduits = 128;
constexpr int32_t kHandshakeVersion = 5;

}  // namespace

BluetoothSocket::BluetoothSocket(ProxySocket::Delegate* delegate,
                                 Reactor& reactor, Flags flags,
                                 UdpConduitFactory udp_conduit_factory)
    : delegate_(delegate),
      reactor_(reactor),
      output_(*this, reactor),
      udp_v2_conduits_(kMaxUdpConduits, reactor,
                       std::move(udp_conduit_factory)),
      udp_v1_conduits_(kMaxUdpConduits),
      flags_(flags) {}

BluetoothSocket::~BluetoothSocket() {
  reactor_.Unregister(*this, Reactor::kRead);
  reactor_.Unregister(*this, Reactor::kWrite);
  LOGD("[B] Total bytes RX/TX: %zu/%zu", static_cast<size_t>(rx_bytes_),
       output_.GetBuffer().GetTotalWrittenByteCount());
}

bool BluetoothSocket::Connect(int fd) {
  if (!IsUsableLinkDescriptor(fd)) return false;
  SetFd(fd);
  LOGD("connect: fd: %d", fd);
  connection_header_t header;
  if (!ReceiveConnectionHeader(*this, &header)) return false;
  output_.GetBuffer().SetMaxWriteSize(header.max_tx_size);
  if ((flags_ & FLAG_HANDSHAKE) != 0) {
    StartHandshake();
  } else {
    handshake_state_ = HandshakeState::kDone;
  }
  reactor_.Register(*this, Reactor::kRead);
  return true;
}

void BluetoothSocket::StartHandshake() {
  handshake_version_ = kHandshakeVersion;
  Send(v1::Handshake(TYPE_HANDSHAKE, kHandshakeVersion));
  handshake_state_ = HandshakeState::kSent;
  LOGI("[B] Start handshake: %d", handshake_version_);
}

unsigned int BluetoothSocket::HandleHandshakeAck(const char* data,
                                                 unsigned int length) {
  // On purpose only the header has to be there: the payload is skipped unread,
  // whenever it comes.
  const auto size = static_cast<unsigned int>(v1::GetMessageSize(data, length));
  if (size == 0) return 0;
  const auto version = static_cast<int32_t>(v1::GetVersion(data));
  // Any state but "sent" fails, also a second acknowledgement: whoever sends
  // it is not in step with this end.
  if (handshake_state_ == HandshakeState::kSent &&
      version == handshake_version_) {
    Send(v1::Handshake(TYPE_HANDSHAKE_DONE, v1::GetVersion(data)));
    handshake_state_ = HandshakeState::kDone;
    LOGI("[B] Handshake Done: %d", version);
    return size;
  }
  LOGE("[B] Unexpected handshake ACK %d", version);
  handshake_state_ = HandshakeState::kFailed;
  reactor_.Stop();
  delegate_->HandleTeardown();
  return size;
}

}  // namespace vantrel
