#pragma once

#include <stdint.h>

#include <functional>
#include <sstream>
#include <string>

#include "common/host_and_port.h"
#include "proto/src/transfer_stats.pb.h"
#include "reactor/reactor.h"
#include "reactor/socket.h"

namespace vantrel {

using ::android::corvane::protos::MessageUidTransferStatsInfo;

class UdpConduit;

// The one connection to the companion, as the rest of the process sees it.
// Owns the Bluetooth socket's descriptor. The entry point calls Connect()
// once before the reactor runs and GetTransferStats() after it has returned;
// everything between is called from inside the reactor's handlers. A link
// that cannot go on stops the reactor.
class ProxySocket : public Socket {
 public:
  // Told of events that concern the whole process.
  class Delegate {
   public:
    virtual ~Delegate() = default;
    // The companion ended the link, or the handshake failed. Called after the
    // link has stopped the reactor.
    virtual void HandleTeardown() = 0;
    // The companion reports the network that it now uses.
    virtual void HandleActiveNetworkStateChange(int network_id,
                                                bool is_metered) = 0;
  };

  // One captured TCP connection, as the link drives it. The conduit owns
  // itself: after Close() the link must not touch it again.
  class TcpConduitDelegate {
   public:
    virtual ~TcpConduitDelegate() = default;
    // Key of the link's stream table; fixed for the conduit's life.
    virtual uint32_t GetId() const = 0;
    // Where the application wanted to connect.
    virtual HostAndPort GetRemote() const = 0;
    virtual uint32_t GetUid() const = 0;             // kNobodyUid: not found
    virtual std::string GetPackageName() const = 0;  // may be empty
    // The companion acknowledged one earlier write of this stream.
    virtual void HandleWriteAck() = 0;
    // Queues bytes from the companion for the application.
    virtual void Write(std::string data) = 0;
    // Ends the stream; may destroy the conduit at once.
    virtual void Close() = 0;
    // Whether GetNextBuffer() may be called: the application's side has ended,
    // or a chunk is waiting and credit for it is left.
    virtual bool HasBuffer() const = 0;
    // Moves the next chunk into |out|. False: the application's side has ended
    // and the link must close the stream.
    virtual bool GetNextBuffer(std::string* out) = 0;
    // Appends one line about this stream, for the state dump.
    virtual void Dump(std::stringstream& out) const = 0;
  };

  // Takes over the connected Bluetooth socket |fd|, reads its connection
  // header and starts the protocol. False when the link cannot be used; the
  // reason is logged.
  [[nodiscard]] virtual bool Connect(int fd) = 0;
  // Announces a new stream to the companion and relays it from now on.
  virtual void RegisterTcpStream(TcpConduitDelegate* conduit) = 0;
  // The conduit of that stream has new bytes or has ended: the link comes for
  // them when its socket is writable.
  virtual void OnTcpDataAvailable(uint32_t stream_id) = 0;
  // Sends one captured datagram; |source| is the local application's endpoint.
  virtual void SendDatagram(const HostAndPort& source,
                            const HostAndPort& destination,
                            const std::string& payload) = 0;
  // Appends a state report for a person.
  virtual void Dump(std::stringstream& out) const = 0;
  // Measurements that the debug control port starts; results are logged.
  virtual void Ping() = 0;
  virtual void Pull(uint32_t bytes) = 0;
  virtual void Push(uint32_t bytes) = 0;
  // Adds the traffic of each UID since the previous call to |out|.
  virtual void GetTransferStats(MessageUidTransferStatsInfo* out) = 0;
};

// Makes a new UdpConduit for a remote endpoint; the caller owns it.
using UdpConduitFactory =
    std::function<UdpConduit*(Reactor&, const HostAndPort& remote)>;

}  // namespace vantrel
