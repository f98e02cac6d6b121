#pragma once

#include <deque>
#include <string>

#include "common/host_and_port.h"
#include "reactor/reactor.h"
#include "reactor/socket.h"

namespace vantrel {

// Sends the answers of one remote endpoint to the applications that wrote to
// it. Its socket is bound transparently to the remote's own address and port,
// so an answer comes from where the application sent its datagram. It never
// reads: incoming datagrams are UdpServer's.
//
// Shared by the link's cache, whose eviction ends it. |reactor| outlives it.
class UdpConduit : public Socket {
 public:
  // Opens no socket yet.
  UdpConduit(Reactor& reactor, const HostAndPort& remote);
  ~UdpConduit() override;

  void OnWriteReady() override;

  // Opens and binds the socket. False on failure, which is logged. Once a
  // socket exists a further call returns true and does nothing, on purpose
  // also after a failure: the link drops a conduit that did not bind.
  [[nodiscard]] virtual bool Bind();

  // Queues an answer for the application at |destination|.
  virtual void SendResponse(const HostAndPort& destination,
                            const std::string& payload);
  // The companion could not deliver |request| of the application at
  // |destination|. A DNS query is answered with a refusal, so that its sender
  // need not wait for a time-out; anything else is dropped.
  virtual void SendFailure(const HostAndPort& destination,
                           const std::string& request);

 private:
  struct response_queue_item_t {
    HostAndPort destination;
    std::string payload;
  };

  Reactor& reactor_;
  std::deque<response_queue_item_t> response_queue_;  // oldest first
  const HostAndPort remote_;
};

}  // namespace vantrel
