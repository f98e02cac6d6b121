#pragma once

#include <stdint.h>

#include <array>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "capture/udp_conduit.h"
#include "common/host_and_port.h"
#include "common/lru_cache.h"
#include "common/uid_usage.h"
#include "link/link_output.h"
#include "link/packet_bytes.h"
#include "link/proxy_socket.h"
#include "link/stream_table.h"
#include "link/udp_conduit_table.h"
#include "link/v1_wire.h"
#include "reactor/reactor.h"

namespace vantrel {

// The link to the companion over protocol 1 (link/v1_wire.h). Charges every
// byte in both directions, headers included, to the UID of the application it
// was moved for. |delegate| and |reactor| outlive it. TCP conduits own
// themselves; it keeps only pointers to them. UDP conduits live in its caches.
//
// The handshake gates nothing: traffic flows while it is under way.
class BluetoothSocket : public ProxySocket {
 public:
  // A bit set.
  enum Flags : int {
    FLAG_NONE = 0,
    FLAG_UDP_V2 = 1,     // datagrams name the application's endpoint too
    FLAG_HANDSHAKE = 2,  // begin with the version handshake
    FLAG_ALL = 3,
  };

  BluetoothSocket(ProxySocket::Delegate* delegate, Reactor& reactor,
                  Flags flags, UdpConduitFactory udp_conduit_factory);
  ~BluetoothSocket() override;

  void OnReadReady() override;
  void OnWriteReady() override;

  [[nodiscard]] bool Connect(int fd) override;
  void RegisterTcpStream(TcpConduitDelegate* conduit) override;
  void OnTcpDataAvailable() override;
  void SendDatagram(const HostAndPort& local, const HostAndPort& remote,
                    const std::string& payload) override;
  void Dump(std::stringstream& out) const override;
  void Ping() override;
  void Pull(unsigned int bytes) override;
  void Push(unsigned int bytes) override;
  void GetTransferStats(MessageUidTransferStatsInfo* out) override;

 private:
  struct udp_v1_local_conduit_t {
    std::shared_ptr<UdpConduit> conduit;
    HostAndPort local;  // the application that most recently sent
  };
  struct pull_state_t {
    uint32_t start_time_ms = 0;
    uint32_t bytes_received = 0;
    uint32_t bytes_requested = 0;
  };
  struct push_state_t {
    uint32_t start_time_ms = 0;
    uint32_t bytes_sent = 0;
    uint32_t bytes_requested = 0;
  };
  enum class HandshakeState { kNone, kSent, kDone, kFailed };

  // The largest message, and room to tell a full buffer from the end of the
  // stream.
  static constexpr size_t kReceiveBufferBytes = 65568;

  // Connection and handshake (bluetooth_socket.cc).
  void StartHandshake();
  // Returns the bytes consumed, which may be more than |length|: the payload
  // need not have arrived.
  unsigned int HandleHandshakeAck(const char* data, unsigned int length);

  // Messages and streams (bluetooth_socket_messages.cc).
  void ProcessReceived();
  // Handles the message at the front of |data|. Returns the bytes consumed, 0
  // while the message is incomplete; |length| may be exceeded only by a
  // handshake acknowledgement.
  unsigned int ProcessMessage(const char* data, unsigned int length);
  // Acts on a whole message of |size| bytes, and returns the UID to charge.
  uint32_t DispatchMessage(const char* data, size_t size);
  uint32_t HandleTcpClose(const char* data);
  uint32_t HandleTcpData(const char* data, size_t size);
  void HandleTcpWriteAck(const char* data);
  unsigned int HandleActiveNetworkState(const char* data, unsigned int length);
  void CloseTcpStream(unsigned int stream_id, unsigned int uid);
  void MaybeSendPackageName(const TcpConduitDelegate& conduit,
                            const std::string& connect);

  // Datagrams (bluetooth_socket_datagrams.cc).
  void SendDatagramV1(const HostAndPort& local, const HostAndPort& remote,
                      const std::string& payload);
  void SendDatagramV2(const HostAndPort& local, const HostAndPort& remote,
                      const std::string& payload);
  // Each hands an answer or failure to its conduit and returns the UID to
  // charge.
  uint32_t HandleDatagramV1(const char* data, size_t size);
  uint32_t HandleDatagramV2(const char* data, size_t size);

  // Sending, measurements and statistics (bluetooth_socket_output.cc).
  // The only way a message is queued. May stop the reactor: the companion has
  // stopped reading.
  void AddToWriteBuffer(const PacketBytes& packet);
  // Queues one message without payload, charged to |uid|.
  void Send(const std::string& message, uint32_t uid = PacketBytes::kNobody);
  // False when the queue is full before the streams have run dry.
  bool QueueStreamData();
  bool QueueStreamDataPass();
  void QueuePushData();
  // Queues the next chunk. Returns whether bytes are left after it.
  bool WritePushData(int id, push_state_t& state);
  void HandlePingEcho(const char* data);
  void HandlePullData(const char* data, size_t size);

  ProxySocket::Delegate* const delegate_;
  Reactor& reactor_;
  std::array<char, kReceiveBufferBytes> receive_buffer_;
  uint32_t receive_fill_ = 0;  // unprocessed bytes in |receive_buffer_|
  uint32_t receive_skip_ = 0;  // bytes still to come of a skipped payload
  uint32_t rx_bytes_ = 0;      // read from the companion
  LinkOutput output_;
  StreamTable streams_;
  UdpConduitTable udp_v2_conduits_;
  // By remote endpoint.
  LruCache<HostAndPort, udp_v1_local_conduit_t> udp_v1_conduits_;
  int32_t next_pull_id_ = 0;
  std::map<int32_t, pull_state_t> pulls_;
  int32_t next_push_id_ = 0;
  std::map<int32_t, push_state_t> pushes_;
  std::map<uint32_t, std::string> package_names_;  // announced, by UID
  UidUsage uid_usage_;             // since the last request for statistics
  UidUsage uid_usage_since_boot_;  // before it
  const Flags flags_;
  HandshakeState handshake_state_ = HandshakeState::kNone;
  int32_t handshake_version_ = 1;  // offered
  std::string push_filler_;        // one full chunk, built on first need
};

}  // namespace vantrel
