#pragma once

#include <stddef.h>
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
#include "link/link_input.h"
#include "link/link_output.h"
#include "link/measurements.h"
#include "link/packet_bytes.h"
#include "link/proxy_socket.h"
#include "link/stream_table.h"
#include "link/udp_conduit_table.h"
#include "link/v1_wire.h"
#include "reactor/reactor.h"

namespace vantrel {

// The link to the companion over protocols 1 and 5 (link/v1_wire.h). Charges
// every byte in both directions, headers included, to the UID of the
// application it was moved for. |delegate| and |reactor| outlive it. TCP
// conduits own themselves; it keeps only pointers to them. UDP conduits live in
// its caches.
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
  void OnTcpDataAvailable(uint32_t stream_id) override;
  void SendDatagram(const HostAndPort& local, const HostAndPort& remote,
                    const std::string& payload) override;
  void Dump(std::stringstream& out) const override;
  void Ping() override { measurements_.Ping(); }
  void Pull(uint32_t bytes) override { measurements_.Pull(bytes); }
  void Push(uint32_t bytes) override { measurements_.Push(bytes); }
  void GetTransferStats(MessageUidTransferStatsInfo* out) override;

 private:
  struct udp_v1_local_conduit_t {
    std::shared_ptr<UdpConduit> conduit;
    HostAndPort local;  // the application that most recently sent
  };
  enum class HandshakeState { kNone, kSent, kDone, kFailed };

  // The largest message, and room to tell a full buffer from the end of the
  // stream.
  static constexpr size_t kReceiveBufferBytes = 65568;

  // Connection, handshake, dispatch and output (bluetooth_socket.cc).
  void StartHandshake();
  // Returns the bytes consumed, which may be more than |length|: the payload
  // need not have arrived.
  size_t HandleHandshakeAck(const char* data, size_t length);
  void ProcessReceived();
  // Handles the message at the front of |data|. Returns the bytes consumed, 0
  // while the message is incomplete; |length| may be exceeded only by a
  // handshake acknowledgement.
  size_t ProcessMessage(const char* data, size_t length);
  // Acts on a whole message of |size| bytes, and returns the UID to charge.
  uint32_t DispatchMessage(const char* data, size_t size);
  size_t HandleActiveNetworkState(const char* data, size_t length);
  // The only way a message is queued. May stop the reactor: the companion has
  // stopped reading.
  void AddToWriteBuffer(PacketBytes packet);

  // Streams and datagrams (bluetooth_socket_flows.cc). What handles a message
  // returns the UID to charge.
  uint32_t HandleTcpClose(const char* data);
  uint32_t HandleTcpData(const char* data, size_t size);
  void HandleTcpWriteAck(const char* data);
  uint32_t HandleDatagramV1(const char* data, size_t size);
  uint32_t HandleDatagramV2(const char* data, size_t size);
  void CloseTcpStream(uint32_t stream_id, uint32_t uid);
  void MaybeSendPackageName(const TcpConduitDelegate& conduit,
                            const std::string& connect);
  // False when the queue is full before the streams have run dry.
  bool QueueStreamData();
  void SendDatagramV1(const HostAndPort& local, const HostAndPort& remote,
                      const std::string& payload);
  void SendDatagramV2(const HostAndPort& local, const HostAndPort& remote,
                      const std::string& payload);

  ProxySocket::Delegate* const delegate_;
  Reactor& reactor_;
  std::array<char, kReceiveBufferBytes> receive_buffer_;
  size_t receive_fill_ = 0;  // unprocessed bytes in |receive_buffer_|
  size_t receive_skip_ = 0;  // bytes still to come of a skipped payload
  uint32_t rx_bytes_ = 0;    // read from the companion
  LinkInput input_;
  LinkOutput output_;
  StreamTable streams_;
  UdpConduitTable udp_conduits_;
  // By remote endpoint.
  LruCache<HostAndPort, udp_v1_local_conduit_t> udp_v1_conduits_;
  Measurements measurements_;
  std::map<uint32_t, std::string> package_names_;  // announced, by UID
  UidUsage uid_usage_;             // since the last request for statistics
  UidUsage uid_usage_since_boot_;  // before it
  const Flags flags_;
  HandshakeState handshake_state_ = HandshakeState::kNone;
};

}  // namespace vantrel
