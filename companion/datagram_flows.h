#pragma once

#include <stddef.h>
#include <stdint.h>

#include <list>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "common/host_and_port.h"
#include "reactor/reactor.h"
#include "reactor/socket.h"

struct sock_extended_err;

namespace vantrel {

// All UDP flows: one connected socket per application endpoint and remote
// endpoint, so that answers and ICMP errors find their flow by themselves.
//
// The sockets stand in an epoll instance, and only that is registered with the
// reactor: an ICMP error shows as POLLERR alone, for which the reactor calls
// no handler, and poll() would then return at once for ever.
class DatagramFlows : public Socket {
 public:
  class Sink {
   public:
    virtual ~Sink() = default;
    // Whether an answer may be delivered now. After a false, nothing is read
    // until Resume().
    virtual bool HasRoomForAnswer() const = 0;
    virtual void OnAnswer(const HostAndPort& local, const HostAndPort& remote,
                          const std::string& payload) = 0;
    // |request| could not be delivered; of an older one than the last only
    // what the network quoted of it.
    virtual void OnFailure(const HostAndPort& local, const HostAndPort& remote,
                           const std::string& request) = 0;
  };

  static constexpr size_t kMaxFlows = 512;
  static constexpr uint32_t kMaxIdleTicks = 60;

  // |dns_server| takes every datagram for port 53; the flow still appears with
  // the remote that the application asked.
  DatagramFlows(Reactor& reactor, Sink& sink,
                std::optional<HostAndPort> dns_server);
  ~DatagramFlows() override;

  void OnReadReady() override;

  // Sends one datagram of the application at |local|; the flow is made when it
  // is not known, and the one that was silent longest gives way to it.
  void Send(const HostAndPort& local, const HostAndPort& remote,
            const std::string& payload);
  void Resume();
  void OnTick();  // once a second; forgets silent flows
  void Clear();

  size_t GetFlowCount() const { return flows_.size(); }

 private:
  using Ends = std::pair<HostAndPort, HostAndPort>;  // local, remote
  struct flow_t {
    flow_t(const Ends& flow_ends, int fd) : ends(flow_ends), socket(fd) {}

    const Ends ends;
    Socket socket;
    std::string last_request;
    uint32_t last_used_tick = 0;
  };
  using Flows = std::list<flow_t>;

  // The flow, as the most recently used one. Null when the system refuses it.
  flow_t* FindOrCreate(const Ends& ends);
  flow_t* Create(const Ends& ends);
  void Touch(Flows::iterator flow);
  void Forget(Flows::iterator flow);
  // False when the socket has nothing more for now.
  bool ReceiveOne(flow_t* flow);
  // Reports every request that the network could not deliver.
  void ReceiveErrors(flow_t* flow);
  void ReportError(const flow_t& flow, const sock_extended_err& error,
                   const std::string& quoted);

  Reactor& reactor_;
  Sink& sink_;
  const std::optional<HostAndPort> dns_server_;
  Flows flows_;  // longest silent first; the addresses are epoll's user data
  std::unordered_map<Ends, Flows::iterator> index_;
  uint32_t tick_ = 0;
};

}  // namespace vantrel
