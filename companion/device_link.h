#pragma once

#include <stddef.h>
#include <stdint.h>

#include <asio/io_context.hpp>
#include <functional>
#include <list>
#include <memory>
#include <string>

#include "companion/applications.h"
#include "companion/companion_log.h"
#include "companion/datagram_flows.h"
#include "companion/destinations.h"
#include "companion/flow_scheduler.h"
#include "companion/link_deadlines.h"
#include "companion/link_parts.h"
#include "companion/link_peer.h"
#include "companion/link_protocol.h"
#include "companion/link_socket.h"
#include "companion/link_streams.h"
#include "companion/link_writer.h"
#include "companion/options.h"
#include "companion/socket_pool.h"
#include "companion/traffic_rules.h"
#include "companion/turn_queue.h"
#include "companion/upload_scheduler.h"
#include "support/companion_state.h"
#include "support/steady_time.h"

namespace vantrel {

// One device's link, with all that belongs to it: socket, protocol, what waits
// to be sent, streams and flows. Nothing of it is shared with another link.
//
// After the link has ended the object stays until its streams have delivered
// their rest; IsOver() tells when its owner should destroy it.
class DeviceLink final : public DeviceMessages {
 public:
  // What all links share. All of it outlives them.
  struct shared_t {
    asio::io_context& loop;
    const companion_options_t& options;
    const Destinations& destinations;
    TrafficRules& rules;
    SocketPool& sockets;
    TurnQueue& turns;
  };

  // |fd| is a connected stream socket, and |peer| its other end. |id| names the
  // link in the log. |on_change| is called when IsUp() or IsOver() may have
  // changed, from within the link's handlers: it must not destroy the link.
  DeviceLink(const shared_t& shared, UniqueFd fd, link_peer_t peer, uint32_t id,
             std::function<void()> on_change);
  DeviceLink(const DeviceLink&) = delete;
  DeviceLink& operator=(const DeviceLink&) = delete;
  ~DeviceLink() override;

  // Does |work| of this link, which is how all of the below is called in the
  // program. What it throws ends the link: there is no more memory, or the
  // system cannot watch another descriptor.
  void Run(const std::function<void()>& work);

  // Once, when the object is complete.
  void Start();
  void ReportNetwork();
  // The rules have changed, or what is left of quotas.
  void ReviewRules();
  // Ends the link in order: |reason| is told to the device, and the link is
  // down when the device has closed its side, or some seconds later.
  void Close(const std::string& reason);
  // Close(), and the link is down afterwards: for one whose place another has
  // got.
  void CloseAtOnce(const std::string& reason);
  void OnTick(SteadyTime now);  // once a second

  bool IsUp() const { return state_ != State::kEnded; }
  size_t GetSocketCount() const {  // of its streams and flows
    return streams_.GetCount() + flows_.GetCount();
  }
  bool IsOver() const { return !IsUp() && streams_.GetCount() == 0; }
  // Whether the link ended otherwise than by the device or in order.
  bool HasFailed() const { return has_failed_; }
  // A link without any word from its device, which gives way to another.
  bool IsSilent(SteadyTime now) const;
  // Its state, for a line in the log.
  void LogState();
  const Applications& GetApplications() const { return applications_; }
  const link_peer_t& GetPeer() const { return peer_; }
  // All bytes of the link so far.
  const traffic_t& GetTraffic() const { return socket_.GetTraffic(); }
  // Calls |look|(const RemoteStream&) for each that the device has open.
  template <typename Look>
  void EachStream(const Look& look) const {
    streams_.EachOpen(look);
  }
  // The link for the status socket, without its applications.
  companion_state_t::device_t Describe(SteadyTime now) const;

  void OnReady(const std::string& description) override;
  void OnConnect(uint32_t stream_id, const HostAndPort& remote,
                 uint32_t uid) override;
  void OnData(uint32_t stream_id, std::string bytes) override;
  void OnClose(uint32_t stream_id) override;
  void OnDatagram(const HostAndPort& local, const HostAndPort& remote,
                  const std::string& payload) override;
  void OnPackageName(uint32_t uid, const std::string& name) override;
  void OnTransfer(std::unique_ptr<FlowScheduler::Flow> transfer) override;
  void OnNotice(const std::string& text) override;
  void OnUnexpected(const std::string& text) override;
  void OnFailure(const std::string& reason) override;

 private:
  enum class State {
    kOpen,     // from the start on, before the handshake, too
    kClosing,  // only control messages are sent, up to the last one
    kEnded,    // the socket is closed; streams may deliver their rest
  };

  // Ends the link at once, after an exception of what it does.
  void OnException(const char* what);
  void OnReadable();
  // Handles what the device has sent, as much as a turn has time for.
  void TakeTurn();
  // True when there may be more to read at once.
  bool ReadOnce();
  // Whether a read of the socket has brought bytes. Ends the link when |result|
  // says that the socket has ended.
  bool HasRead(LinkSocket::Result result);
  // Of those that were read as many as the turn still has time for.
  void HandleMessages();
  // Whether the device must take answers before it may ask for more.
  bool IsControlFull();
  // Waits for the next turn, or for more bytes.
  void ReadOn();
  void OnWritable();
  // Sends as much of what waits as the socket takes.
  void Pump();
  void BeginClosing(const std::string& reason);
  void StopFlows();
  void DropTransfers();
  // What may be the cause when a handshake does not come to its end; begins
  // with "; ", or empty.
  std::string DescribeHandshake() const;
  // The socket has ended, or failed.
  void EndByPeer();
  void End(bool by_error, const std::string& why);

  // Of what waits for the device.
  size_t GetWaitingBytes() const;

  const companion_options_t& options_;
  const link_peer_t peer_;
  const SteadyTime begin_ = GetSteadyTime();
  CompanionLog log_;
  const std::function<void()> on_change_;
  FlowScheduler scheduler_;
  UploadScheduler uploads_;
  Applications applications_;
  const std::unique_ptr<LinkProtocol> protocol_;
  const link_parts_t parts_;
  LinkStreams streams_;
  DatagramFlows flows_;
  std::list<std::unique_ptr<FlowScheduler::Flow>> transfers_;
  LinkSocket socket_;
  LinkDeadlines deadlines_;
  LinkWriter writer_;
  State state_ = State::kOpen;
  TurnQueue::Member turns_;
  SteadyTime turn_end_;
  bool has_unhandled_ = true;  // the protocol, messages that were read
  bool is_handling_ = false;   // the device's messages
  bool has_failed_ = false;
};

}  // namespace vantrel
