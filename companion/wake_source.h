#pragma once

#include <functional>

#include "reactor/reactor.h"
#include "reactor/socket.h"

namespace vantrel {

// A timer or signal descriptor that calls a function on the reactor's thread.
// What the descriptor counts is read and thrown away: several ticks or signals
// that came since the last cycle are one call.
class WakeSource : public Socket {
 public:
  // Each opens its descriptor; -1 when the system refuses, and nothing is ever
  // called then.
  static int OpenSecondsTimer();
  // Blocks |signal| for the process, so that only the descriptor reports it.
  static int OpenSignal(int signal);

  // Takes ownership of |fd| and registers it for reading.
  WakeSource(Reactor& reactor, int fd, std::function<void()> on_wake);
  ~WakeSource() override;

  void OnReadReady() override;

 private:
  Reactor& reactor_;
  const std::function<void()> on_wake_;
};

}  // namespace vantrel
