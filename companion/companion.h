#pragma once

#include <memory>

#include "companion/device_link.h"
#include "companion/link_listener.h"
#include "companion/options.h"
#include "companion/relay.h"
#include "companion/wake_source.h"
#include "reactor/reactor.h"

namespace vantrel {

// The program's parts, wired together: takes one link after the other (or the
// only one), tells the device about the active network, and connects link and
// relay. |reactor| and |options| outlive it.
class Companion : public DeviceLink::Delegate {
 public:
  Companion(Reactor& reactor, const Options& options);
  Companion(const Companion&) = delete;
  Companion& operator=(const Companion&) = delete;
  ~Companion() override;

  // False when there is no link and can be none; the reason is logged.
  [[nodiscard]] bool Start();
  // After the reactor has returned: says good-bye to a device that is still
  // connected. The program's exit status is 1 when the only link failed.
  [[nodiscard]] int Finish();

  void OnLinkEvent(const LinkEvent& event) override;
  void OnLinkRoom() override;
  void OnLinkEnded(bool by_error) override;

 private:
  void ServeLink(int fd);
  void ReportNetwork();
  void OnTick();
  // With only one link: ends the program once nothing is left to deliver.
  void StopWhenDone();

  Reactor& reactor_;
  const Options& options_;
  Relay relay_;
  std::unique_ptr<LinkListener> listener_;  // null with an inherited link
  std::unique_ptr<DeviceLink> link_;        // null between links
  bool handshake_done_ = false;
  bool failed_ = false;
  // Last: they call into the others.
  WakeSource ticker_;
  WakeSource hangup_;
};

}  // namespace vantrel
