#pragma once

#include <stdint.h>

#include <asio/io_context.hpp>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "companion/bluetooth_listener.h"
#include "companion/destination_policy.h"
#include "companion/destinations.h"
#include "companion/device_link.h"
#include "companion/link_listener.h"
#include "companion/link_peer.h"
#include "companion/local_routes.h"
#include "companion/options.h"
#include "companion/reporter.h"
#include "companion/socket_pool.h"
#include "companion/traffic_rules.h"
#include "companion/turn_queue.h"
#include "support/loop_objects.h"
#include "support/service_manager.h"
#include "support/timer.h"

namespace vantrel {

// The program's parts, wired together: listeners, links, signals, the clock of
// a second, and what the service manager wants to know.
class Companion {
 public:
  // |options| outlive it. |max_descriptors| is what the process may open.
  Companion(const companion_options_t& options, size_t max_descriptors);
  Companion(const Companion&) = delete;
  Companion& operator=(const Companion&) = delete;
  ~Companion();

  // The program's exit status: kUsageStatus for wrong rules, 1 when there is no
  // link and can be none, which is logged, or when the only link has failed.
  [[nodiscard]] int Run();

 private:
  using Links = std::map<uint32_t, std::unique_ptr<DeviceLink>>;

  // False when one cannot be opened.
  [[nodiscard]] bool OpenListeners();
  // Likewise, but for a listener that nobody has asked for.
  [[nodiscard]] bool OpenBluetooth();
  // Runs the loop until it is stopped, whatever fails for want of memory.
  void RunLoop();
  void GoOn();
  // Lets |link| do |work|, which takes a DeviceLink&.
  template <typename Work>
  static void Ask(DeviceLink& link, const Work& work) {
    link.Run([&] { work(link); });
  }
  template <typename Work>
  void AskAll(const Work& work) {
    for (const auto& entry : links_) Ask(*entry.second, work);
  }
  void TakeLink(UniqueFd fd, const link_peer_t& peer);
  void AddLink(UniqueFd fd, const link_peer_t& peer);
  // What the link has used is kept. Returns the next one.
  Links::iterator EraseLink(Links::iterator entry);
  std::vector<const DeviceLink*> GetLinks() const;
  size_t CountUp() const;
  // Whether another link has a place. Where all are taken, ends the link that
  // has been silent for longest, if one has been silent for too long.
  bool MakeRoom();
  // As many links as may be up may deliver their rest after they have ended,
  // with as many sockets as links share; above that the oldest lose it.
  void BoundRests();
  void OnLinkChanged();
  void RemoveLinksThatAreOver();

  void WaitForSignal();
  void OnSignal(int signal);
  void ReadAgain();
  void LogState();
  void Stop();
  void StartTicking();
  void OnTick();
  // One link at a time, so that other work comes in between.
  void TickNext(SteadyTime now, uint32_t last_id);
  void StartWatchdog();
  void OnWatchdog();

  const companion_options_t& options_;
  asio::io_context loop_;
  ServiceManager service_manager_;
  LocalRoutes routes_;
  DestinationPolicy policy_;
  NameServers name_servers_;
  const Destinations destinations_;
  TrafficRules rules_;
  SocketPool sockets_;
  TurnQueue turns_;
  LoopSignals signals_;
  Timer ticker_;
  Timer watchdog_;
  Timer stop_timer_;
  std::list<LinkListener> listeners_;
  std::unique_ptr<BluetoothListener> bluetooth_;  // null: not asked for
  Links links_;
  Reporter reporter_;
  uint32_t last_id_ = 0;
  bool is_ticking_ = false;
  bool is_stopping_ = false;
  bool has_failed_ = false;
};

}  // namespace vantrel
