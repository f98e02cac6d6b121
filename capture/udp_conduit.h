#pragma once

#include <deque>
#include <string>

#include "common/host_and_port.h"
#include "common/lru_cache.h"
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

  // Opens and binds the socket. False on failure, which is logged; errno then
  // has the reason. Once a socket exists a further call returns true and does
  // nothing, also after a failure: the link drops a conduit that did not bind.
  [[nodiscard]] virtual bool Bind();

  // The application at |local| has sent a datagram to the remote.
  void NoteSender(const HostAndPort& local);
  // Whether an answer may go to |local|: to the applications' own address, or
  // to an endpoint that has sent to the remote. Without that the companion
  // could reach every UDP service of the device, also on its loopback.
  bool IsAnswerable(const HostAndPort& local);

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
  // Endpoints at other addresses than the applications' own. Bounded: one
  // application can send from any number of ports.
  LruCache<HostAndPort, bool> other_senders_;
};

}  // namespace vantrel
