#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "common/host_and_port.h"
#include "reactor/reactor.h"
#include "reactor/socket.h"
#include "reactor/write_buffer.h"

namespace vantrel {

// One TCP connection to a real remote, on behalf of an application of the
// device. Its owner destroys it, at the latest in OnStreamOver().
//
// While the device has the stream open, bytes are read only when the owner
// takes them; each readiness is reported once and the socket then left alone
// until WaitUntilReadable(). Finish() ends that: from then on the stream only
// delivers what it holds, and drops whatever the remote still sends.
class RemoteStream : public Socket {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    // There is something to read: bytes, the end or an error.
    virtual void OnStreamReadable(RemoteStream& stream) = 0;
    // |count| of the device's writes are in the hands of the kernel.
    virtual void OnWritesDelivered(RemoteStream& stream, size_t count) = 0;
    // The connection could not be made or, after Finish(), is done with. The
    // stream may be destroyed.
    virtual void OnStreamOver(RemoteStream& stream) = 0;
  };

  // The device's credit: more writes than this never wait in a stream.
  static constexpr size_t kMaxUnacknowledgedWrites = 8;

  RemoteStream(Reactor& reactor, Owner& owner, uint32_t id,
               const HostAndPort& remote);
  ~RemoteStream() override;

  void OnReadReady() override;   // may destroy this
  void OnWriteReady() override;  // may destroy this

  uint32_t GetId() const { return id_; }
  bool IsFinishing() const { return finishing_; }

  // Begins to connect. False when that fails at once; the reason is logged.
  [[nodiscard]] bool Connect();
  // Queues one write of the device. False when the device had no credit for
  // it; nothing is queued then.
  [[nodiscard]] bool Write(std::string bytes);
  void WaitUntilReadable();
  // The owner has read the end of the remote's bytes.
  void SetRemoteEnded() { remote_ended_ = true; }
  // Delivers what is queued, tells the remote that nothing follows and waits
  // for its end, so that no byte is lost to a reset. Over when that is done,
  // or when a connection without progress has seen |max_idle_ticks| ticks.
  void Finish(int max_idle_ticks);
  // Once a second for a finishing stream. True: the stream is overdue.
  [[nodiscard]] bool OnTick() { return ++idle_ticks_ >= max_idle_ticks_; }

 private:
  // False when the connection failed; the reason is logged.
  bool CompleteConnect();
  void LogConnectFailure(int error) const;
  void HandleWriteFailure();  // may destroy this
  void ReadAndDiscard();      // may destroy this

  Reactor& reactor_;
  Owner& owner_;
  const uint32_t id_;
  const HostAndPort remote_;
  WriteBuffer queue_;
  bool connected_ = false;
  bool write_failed_ = false;
  bool remote_ended_ = false;
  bool finishing_ = false;
  int max_idle_ticks_ = 0;
  int idle_ticks_ = 0;
};

}  // namespace vantrel
