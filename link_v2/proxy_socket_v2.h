#pragma once

#include <stdint.h>

#include <memory>
#include <sstream>
#include <string>

#include "capture/udp_conduit.h"
#include "common/host_and_port.h"
#include "common/lru_cache.h"
#include "link/link_input.h"
#include "link/link_output.h"
#include "link/proxy_socket.h"
#include "link/stream_table.h"
#include "link/udp_conduit_table.h"
#include "link_v2/message_decoder.h"
#include "link_v2/message_encoder.h"
#include "reactor/reactor.h"

namespace vantrel {

// The link to the companion over protocol 20: checksummed frames with protobuf
// headers. |delegate| and |reactor| outlive it. TCP conduits own themselves;
// it keeps only pointers to them. UDP conduits live in its cache.
//
// Sending is not held back until the handshake is done: streams and datagrams
// are announced at once. Only a closed link sends nothing. The link never
// sends a teardown; it ends by stopping the reactor.
class ProxySocketV2 : public ProxySocket {
 public:
  ProxySocketV2(ProxySocket::Delegate* delegate, Reactor& reactor);
  ~ProxySocketV2() override;

  void OnReadReady() override;
  void OnWriteReady() override;

  [[nodiscard]] bool Connect(int fd) override;
  void RegisterTcpStream(TcpConduitDelegate* conduit) override;
  void OnTcpDataAvailable(uint32_t stream_id) override;
  void SendDatagram(const HostAndPort& source, const HostAndPort& destination,
                    const std::string& payload) override;
  void Dump(std::stringstream& out) const override;
  // This protocol has no measurements and keeps no statistics.
  void Ping() override {}
  void Pull(uint32_t) override {}
  void Push(uint32_t) override {}
  void GetTransferStats(MessageUidTransferStatsInfo*) override {}

 private:
  enum class State {
    kNotStarted,
    kHandshakeStarted,
    kConnected,
    kClosed,  // final
  };

  // Connection and dispatch (proxy_socket_v2.cc).
  void StartHandshake();
  void DecodeAndProcessMessages();
  // Takes the payload out of |message|.
  void DecodeAndProcessMessage(MessageDecoder::message_t* message);
  void ProcessConnectedMessage(MessageDecoder::message_t* message);
  void HandleTeardown(const messages::MessageTeardown& teardown);
  void HandleHandshakeAck(const messages::MessageHandshake& handshake);
  // The one way out for every frame. Drops it when the link is closed; a
  // message that no frame can hold closes the link.
  void SendMessage(MessageEncoder* message, const std::string& payload);
  // Logs why, enters the final state and stops the reactor.
  void CloseLink(const char* what, const std::string& reason);

  // Streams and datagrams (proxy_socket_v2_flows.cc).
  // Fills the queue from the streams in turns, one chunk each per pass.
  // Returns whether the streams may have more: something was taken, or the
  // queue was too full to ask them.
  bool SendTcpData();
  void CloseTcpStream(uint32_t stream_id);
  void HandleTcpClose(const messages::MessageTcpClose& message);
  void HandleTcpWrite(const messages::MessageTcpWrite& message,
                      std::string payload);
  void HandleTcpWriteAck(const messages::MessageTcpWriteAck& message);
  void HandleUdpSend(const messages::MessageUdpSend& message,
                     const std::string& payload);
  void HandleUdpFailure(const messages::MessageUdpFailure& message,
                        const std::string& payload);
  void MaybeSendPackageName(uint32_t uid, const std::string& package_name);

  ProxySocket::Delegate* const delegate_;
  Reactor& reactor_;
  State state_ = State::kNotStarted;
  MessageDecoder decoder_;
  size_t rx_bytes_ = 0;  // read from the Bluetooth socket
  LinkInput input_;
  LinkOutput output_;
  const uint32_t protocol_version_ = kHandshakeVersionV2;
  LruCache<uint32_t, std::string> package_names_;  // last sent, by UID
  StreamTable streams_;
  UdpConduitTable udp_conduits_;
};

}  // namespace vantrel
