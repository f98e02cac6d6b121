// The link over protocol 20: connection, handshake, dispatch and sending.
#include "link_v2/proxy_socket_v2.h"

#include <stdint.h>

#include <algorithm>
#include <utility>

#include "common/log.h"
#include "link/connection_header.h"

namespace vantrel {
namespace {

constexpr size_t kMaxReadSize = 8192;
constexpr uint32_t kMaxPackageNames = 256;
constexpr uint32_t kMaxUdpConduitsV2 = 64;

void LogUnexpected(const char* why, const messages::Header& header) {
  LOGW("[B] Unexpected message: '%s', type=%u", why,
       static_cast<uint32_t>(header.type()));
}

}  // namespace

ProxySocketV2::ProxySocketV2(ProxySocket::Delegate* delegate, Reactor& reactor)
    : delegate_(delegate),
      reactor_(reactor),
      input_(*this, reactor, "ProxySocketV2"),
      output_(*this, reactor),
      package_names_(kMaxPackageNames),
      udp_conduits_(kMaxUdpConduitsV2, reactor,
                    [](Reactor& r, const HostAndPort& remote) {
                      return new UdpConduit(r, remote);
                    }) {}

ProxySocketV2::~ProxySocketV2() {
  reactor_.Unregister(*this, Reactor::kRead);
  reactor_.Unregister(*this, Reactor::kWrite);
  LOGD("[B] Total bytes RX/TX: %zu/%zu", rx_bytes_,
       output_.GetTotalWrittenByteCount());
}

bool ProxySocketV2::Connect(int fd) {
  if (!IsUsableLinkDescriptor(fd)) return false;
  SetFd(fd);
  LOGD("connect: fd: %d", fd);
  connection_header_t header;
  if (!ReceiveConnectionHeader(*this, &header)) return false;
  output_.SetMaxWriteSize(header.max_tx_size);
  reactor_.Register(*this, Reactor::kRead);
  StartHandshake();
  return true;
}

void ProxySocketV2::StartHandshake() {
  state_ = State::kHandshakeStarted;
  MessageEncoder message;
  messages::MessageHandshake* handshake = message.SetAsHandshakeStart();
  handshake->set_version(protocol_version_);
  handshake->set_build_info("");
  SendMessage(&message, "");
}

void ProxySocketV2::OnReadReady() {
  // A decoder that has lost the framing fills up. That is how such a link comes
  // to its end.
  const auto get_room = [this]() -> LinkInput::room_t {
    const size_t space =
        std::min(decoder_.GetAvailableBufferSpace(), kMaxReadSize);
    return {decoder_.GetRoom(space), space};
  };
  input_.ReadTurn(get_room, [this](size_t count) {
    rx_bytes_ += count;
    decoder_.OnFilled(count);
    DecodeAndProcessMessages();
  });
}

void ProxySocketV2::DecodeAndProcessMessages() {
  MessageDecoder::message_t message;
  while (decoder_.GetAndClearMessage(&message)) {
    DecodeAndProcessMessage(&message);
  }
}

void ProxySocketV2::DecodeAndProcessMessage(
    MessageDecoder::message_t* message) {
  const messages::Header& header = message->header;
  if (state_ == State::kClosed) {
    LogUnexpected("ProxySocketV2 is closed", header);
    return;
  }
  if (header.type() == messages::TEARDOWN) {
    HandleTeardown(header.teardown());
    return;
  }
  switch (state_) {
    case State::kNotStarted:
      LogUnexpected("ProxySocketV2 handshake not started", header);
      return;
    case State::kHandshakeStarted:
      if (header.type() == messages::HANDSHAKE_ACK) {
        HandleHandshakeAck(header.handshake_ack());
      } else {
        LogUnexpected("ProxySocketV2 handshake not complete", header);
      }
      return;
    case State::kConnected:
      ProcessConnectedMessage(message);
      return;
    case State::kClosed:
      return;
  }
}

void ProxySocketV2::ProcessConnectedMessage(
    MessageDecoder::message_t* message) {
  const messages::Header& header = message->header;
  switch (header.type()) {
    case messages::TCP_CONNECT_ACK:
    case messages::DNS_SERVERS:
      return;
    case messages::TCP_CLOSE:
      HandleTcpClose(header.tcp_close());
      return;
    case messages::TCP_WRITE:
      HandleTcpWrite(header.tcp_write(), std::move(message->payload));
      return;
    case messages::TCP_WRITE_ACK:
      HandleTcpWriteAck(header.tcp_write_ack());
      return;
    case messages::UDP_SEND:
      HandleUdpSend(header.udp_send(), message->payload);
      return;
    case messages::UDP_FAILURE:
      HandleUdpFailure(header.udp_failure(), message->payload);
      return;
    case messages::NETWORK_STATE:
      // Always metered: the second field of the message is not looked at. Kept
      // for compatibility.
      delegate_->HandleActiveNetworkStateChange(
          static_cast<int>(header.network_state().network_id()), true);
      return;
    default:
      LogUnexpected("ProxySocketV2 unexpected message type", header);
      return;
  }
}

void ProxySocketV2::HandleTeardown(const messages::MessageTeardown& teardown) {
  CloseLink("TEARDOWN", teardown.reason());
  delegate_->HandleTeardown();
}

void ProxySocketV2::HandleHandshakeAck(
    const messages::MessageHandshake& handshake) {
  LOGI("[B] ProxySocketV2 HandshakeAck: version=%d, build_info=%s",
       static_cast<int>(handshake.version()), handshake.build_info().c_str());
  if (handshake.version() == kHandshakeRefused) {
    CloseLink("Remote site reported handshake error", handshake.error());
    return;
  }
  if (handshake.version() != protocol_version_) {
    CloseLink("Unexpected remote protocol version", "");
    return;
  }
  state_ = State::kConnected;
  MessageEncoder message;
  message.SetAsHandshakeDone()->set_version(protocol_version_);
  SendMessage(&message, "");
}

void ProxySocketV2::SendMessage(MessageEncoder* message,
                                const std::string& payload) {
  if (state_ == State::kClosed) return;
  const bool is_queued = output_.AppendWith(
      [&](WriteBuffer* queue) { return message->Write(queue, payload); });
  if (is_queued) return;
  LOGW(
      "[B] ProxySocketV2 unable to serialize message: type=%d, "
      "payload_size=%zu",
      static_cast<int>(message->GetMessageType()), payload.size());
  CloseLink("Unable to serialize message", "");
}

void ProxySocketV2::CloseLink(const char* what, const std::string& reason) {
  LOGW("[B] Closing ProxySocketV2: %s. Reason: %s", what, reason.c_str());
  state_ = State::kClosed;
  reactor_.Stop();
}

void ProxySocketV2::OnWriteReady() {
  const bool produced = SendTcpData();
  output_.DrainAndRest(produced);
}

void ProxySocketV2::Dump(std::stringstream& out) const {
  out << "ProxySocketV2 state:" << std::endl;
  output_.Dump(out, rx_bytes_);
  streams_.Dump(out);
}

}  // namespace vantrel
