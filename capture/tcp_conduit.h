#pragma once

#include <stddef.h>
#include <stdint.h>

#include <list>
#include <sstream>
#include <string>

#include "capture/open_conduits.h"
#include "common/host_and_port.h"
#include "link/proxy_socket.h"
#include "reactor/reactor.h"
#include "reactor/socket.h"
#include "reactor/write_buffer.h"

namespace vantrel {

// One captured TCP connection, relayed as one stream over the link.
//
// Two bounds pace the application. At most 4 chunks of at most 4096 bytes wait
// here: reading stops at 4 and goes on when the link takes one. And the link
// may take at most 8 chunks that the companion has not acknowledged yet. The
// application's end counts when all that it wrote before has gone to the link.
//
// Lifetime: made with new by TcpServer, then owns itself. It deletes itself in
// its constructor when the connection has no original destination, in Close(),
// in Reset(), and in OnWriteReady() once a pending close is done; nobody may
// touch it after a call that can do so. Destruction does not tell the link.
// |reactor| and |link| outlive it.
class TcpConduit final : public Socket, public ProxySocket::TcpConduitDelegate {
 public:
  // Takes ownership of the accepted socket |fd|, finds out where and whose the
  // connection is, registers it with |link| and adds itself to |open_conduits|,
  // which outlives it. The object may be gone when this returns: use the result
  // of new for nothing.
  TcpConduit(Reactor& reactor, ProxySocket& link, int fd, uint32_t id,
             OpenConduits& open_conduits);

  // The daemon ends: cuts the connection with a reset. Only an end that the
  // companion has announced, and of which every byte can be delivered at once,
  // stays an orderly end. Deletes this without a word to the link.
  void Reset();

  void OnReadReady() override;
  void OnWriteReady() override;  // may delete this

  // Adds one to the send credit; it has no upper bound.
  void HandleWriteAck() override;
  void Write(std::string data) override;
  void Close() override;  // deletes this, at once or when all is written
  uint32_t GetId() const override { return id_; }
  HostAndPort GetRemote() const override { return remote_; }
  uint32_t GetUid() const override { return uid_; }
  std::string GetPackageName() const override { return package_name_; }
  bool HasBuffer() const override;
  bool GetNextBuffer(std::string* out) override;
  void Dump(std::stringstream& out) const override;

 private:
  ~TcpConduit() override;

  void FindOwner();
  // Whether the connection comes from the applications' own address. Somebody
  // who binds another may have taken the port of another application, and
  // would pass for it.
  bool IsFromApplicationAddress() const;
  void OnEndOfFile();
  void OnWriteFailure();
  // |count| bytes from the application, for the link to take.
  void QueueChunks(const char* bytes, size_t count);
  // Ends the application's side: the link learns of it when it next asks for
  // data, and closes the stream.
  void SetClosed();

  const uint32_t id_;
  HostAndPort remote_;
  uint32_t uid_ = 0;
  std::string package_name_;
  Reactor& reactor_;
  ProxySocket& link_;
  OpenConduits& open_conduits_;
  std::list<std::string> read_queue_;  // for the link, oldest first
  WriteBuffer write_buffer_;           // for the application
  uint32_t rx_bytes_ = 0;              // read from the application
  uint32_t send_credit_;               // chunks
  bool closed_ = false;                // the application's side has ended
  bool has_write_failed_ = false;      // the application takes nothing more
  bool close_pending_ = false;         // the link is done, data is still queued
};

}  // namespace vantrel
