#pragma once

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "common/host_and_port.h"
#include "common/lru_cache.h"
#include "companion/datagram_flows.h"
#include "companion/device_link.h"
#include "companion/link_protocol.h"
#include "companion/remote_stream.h"

namespace vantrel {

// Carries streams and datagrams between the device's link and the real
// remotes; knows neither the wire nor the handshake.
//
// Streams share the link in turns: one that has something to read stands in a
// queue, gives one message when it is at the front and goes to the back.
// Nothing is read from it otherwise, so a remote that sends faster than the
// link carries is slowed down by its own TCP.
class Relay : public RemoteStream::Owner, public DatagramFlows::Sink {
 public:
  // Streams at the same time, those included that only deliver their rest.
  static constexpr size_t kMaxStreams = 4096;

  Relay(Reactor& reactor, std::optional<HostAndPort> dns_server);
  Relay(const Relay&) = delete;
  Relay& operator=(const Relay&) = delete;

  // Borrows |link| until DetachLink(). From that on every stream of the device
  // only delivers its rest, and flows and package names are forgotten.
  void AttachLink(DeviceLink* link);
  void DetachLink();

  // Any event that is about streams, datagrams or packages.
  void OnLinkEvent(const LinkEvent& event);
  // Moves bytes to the link until that has no room or no stream has any.
  void Pump();
  void OnTick();  // once a second

  // Nothing is left to be delivered.
  bool IsIdle() const { return streams_.empty() && finishing_.empty(); }

  void OnStreamReadable(RemoteStream& stream) override;
  void OnWritesDelivered(RemoteStream& stream, size_t count) override;
  void OnStreamOver(RemoteStream& stream) override;

  bool HasRoomForAnswer() const override;
  void OnAnswer(const HostAndPort& local, const HostAndPort& remote,
                const std::string& payload) override;
  void OnFailure(const HostAndPort& local, const HostAndPort& remote,
                 const std::string& request) override;

 private:
  // How long a finishing stream may make no progress. A process that waits for
  // the last streams of its only link waits no longer than that either.
  static constexpr int kFinishSeconds = 10;
  static constexpr int kFinishSecondsWithoutLink = 2;

  void HandleConnect(const LinkEvent& event);
  void HandleData(const LinkEvent& event);
  void HandleClose(const LinkEvent& event);
  void HandleDatagram(const LinkEvent& event);
  void HandlePackageName(const LinkEvent& event);

  // What is known about the owner of a flow, for a log line.
  std::string DescribeOwner(uint32_t uid);
  RemoteStream* FindStream(uint32_t id) const;
  // Sends one message of |stream|, or what its end means to the device.
  void ForwardFrom(RemoteStream* stream);
  // Ends the stream for the device and lets it deliver its rest.
  void FinishStream(RemoteStream* stream, int max_idle_ticks);
  // Ends the stream at once; the device is told.
  void DropStream(RemoteStream* stream);
  void LeaveTurn(RemoteStream* stream);

  Reactor& reactor_;
  DeviceLink* link_ = nullptr;  // borrowed; null between links
  std::map<uint32_t, std::unique_ptr<RemoteStream>> streams_;
  // No longer known to the device, which may use their ids again.
  std::list<std::unique_ptr<RemoteStream>> finishing_;
  std::deque<RemoteStream*> turns_;
  DatagramFlows flows_;
  std::unique_ptr<LruCache<uint32_t, std::string>> package_names_;
};

}  // namespace vantrel
