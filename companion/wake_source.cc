#include "companion/wake_source.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <utility>

#include "companion/companion_log.h"

namespace vantrel {

int WakeSource::OpenSecondsTimer() {
  const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  itimerspec period = {};
  period.it_interval.tv_sec = 1;
  period.it_value.tv_sec = 1;
  if (fd == -1 || timerfd_settime(fd, 0, &period, nullptr) == -1) {
    Log("no timer: %s", strerror(errno));
  }
  return fd;
}

int WakeSource::OpenSignal(int signal) {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, signal);
  int fd = -1;
  if (sigprocmask(SIG_BLOCK, &signals, nullptr) == 0) {
    fd = signalfd(-1, &signals, SFD_CLOEXEC);
  }
  if (fd == -1) Log("cannot receive signal %d: %s", signal, strerror(errno));
  return fd;
}

WakeSource::WakeSource(Reactor& reactor, int fd, std::function<void()> on_wake)
    : Socket(fd), reactor_(reactor), on_wake_(std::move(on_wake)) {
  reactor_.Register(*this, Reactor::kRead);
}

WakeSource::~WakeSource() { reactor_.Unregister(*this, Reactor::kRead); }

void WakeSource::OnReadReady() {
  signalfd_siginfo record;  // a timer's count is smaller
  if (Read(&record, sizeof(record)) > 0) on_wake_();
}

}  // namespace vantrel
