// For unit tests: the real loop run for a number of passes, and its stop
// signal caught. No test sleeps, and none can hang in poll().
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <utility>

#include "reactor/reactor.h"
#include "reactor/socket.h"

namespace vantrel {

// Keeps SIGTERM and SIGINT blocked while it lives, so that Reactor::Stop()
// outside Start() does not end the test, and takes away what is still pending.
class StopCatcher {
 public:
  StopCatcher() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, SIGINT);
    sigprocmask(SIG_BLOCK, &signals_, nullptr);
  }
  ~StopCatcher() {
    while (TakeSignal() != -1) {
    }
    sigprocmask(SIG_UNBLOCK, &signals_, nullptr);
  }

  // The pending signal, which is no longer pending then; -1 when none is.
  int TakeSignal() {
    const timespec at_once = {};
    return sigtimedwait(&signals_, nullptr, &at_once);
  }
  bool TakeStop() { return TakeSignal() == SIGTERM; }

 private:
  sigset_t signals_;
};

// Always readable; calls Stop() on its n-th pass. Registered last, so that
// every other ready handler of that pass has run.
class PassCounter : public Socket {
 public:
  PassCounter(Reactor& reactor, int passes)
      : Socket(eventfd(1, EFD_CLOEXEC)), reactor_(reactor), left_(passes) {
    reactor_.Register(*this, Reactor::kRead);
  }
  ~PassCounter() override { reactor_.Unregister(*this, Reactor::kRead); }
  void OnReadReady() override {
    if (--left_ == 0) reactor_.Stop();
  }

 private:
  Reactor& reactor_;
  int left_;
};

// Dispatches |passes| cycles. As after every Start(), nothing is registered
// any more when it returns. False when something else stopped the loop too
// early or a signal is missing.
inline bool RunPasses(Reactor& reactor, int passes) {
  StopCatcher stop;
  PassCounter counter(reactor, passes);
  reactor.Start();
  return stop.TakeStop();
}

// A connected pair of local sockets of |type|: the first end is a bare
// descriptor for the object under test, which will own it; the second is the
// test's, never blocking.
inline std::pair<int, std::unique_ptr<Socket>> MakeSocketPair(
    int type = SOCK_STREAM) {
  int fds[2] = {-1, -1};
  if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds) == 0) {
    fcntl(fds[1], F_SETFL, O_NONBLOCK);
  }
  return {fds[0], std::make_unique<Socket>(fds[1])};
}

// Everything that waits in |socket|.
inline std::string ReadAll(const Socket& socket) {
  std::string all;
  char buffer[65536];
  int count;
  while ((count = socket.Read(buffer, sizeof(buffer))) > 0) {
    all.append(buffer, static_cast<size_t>(count));
  }
  return all;
}

}  // namespace vantrel
