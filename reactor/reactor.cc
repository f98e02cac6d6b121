#include "reactor/reactor.h"

#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstddef>

#include "common/log.h"

// One cycle: poll() waits for the signal descriptor and everything registered.
// A pending signal ends the loop before anything else is dispatched. Then each
// ready descriptor has its handlers called, in the order of registration, and
// the write handler before the read handler. Stop() raises SIGTERM: the current
// cycle finishes, and the next one ends the loop.
//
// Nobody is woken by time. poll() has no time-out but one of 0, directly after
// a handler has asked for writing. POLLERR or POLLHUP alone calls no handler.
//
// Whoever registers an object unregisters it before destroying it; destructors
// do so. A handler may register and unregister anything, also its own object,
// and may destroy that as its last act. What is registered during a cycle is
// first polled in the next one.

namespace vantrel {
namespace {

short ToPollBit(Reactor::EventType type) {
  switch (type) {
    case Reactor::kRead:
      return POLLIN;
    case Reactor::kWrite:
      return POLLOUT;
  }
  return 0;
}

void MakeNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if (flags == -1 || (flags & O_NONBLOCK) != 0) return;
  fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

}  // namespace

Reactor::Reactor() : descriptors_(1, pollfd{}), reactables_(1, nullptr) {}

Reactor::~Reactor() { ForgetAll(); }

void Reactor::Start() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  if (sigprocmask(SIG_BLOCK, &signals, nullptr) == -1) {
    LOGE("Unable to set process signal mask: %s", strerror(errno));
    return;
  }
  const int signal_fd = signalfd(-1, &signals, SFD_CLOEXEC);
  if (signal_fd == -1) {
    LOGE("Error creating signal fd: %s", strerror(errno));
    return;
  }
  descriptors_[0] = pollfd{signal_fd, POLLIN, 0};
  Poll();
  close(signal_fd);
  ForgetAll();
}

void Reactor::Stop() { raise(SIGTERM); }

void Reactor::Register(Reactable& r, EventType type) {
  const short bit = ToPollBit(type);
  const size_t index = Find(r);
  has_new_writer_ = has_new_writer_ || type == kWrite;
  if (index != 0) {
    descriptors_[index].events |= bit;
    return;
  }
  const int fd = r.GetFd();
  descriptors_.push_back(pollfd{fd, bit, 0});
  reactables_.push_back(&r);
  r.is_registered_ = true;
  // Once for each descriptor: conduits come and go here with every turn.
  if (r.non_blocking_fd_ == fd) return;
  MakeNonBlocking(fd);
  r.non_blocking_fd_ = fd;
}

void Reactor::Unregister(Reactable& r, EventType type) {
  const size_t index = Find(r);
  if (index == 0) return;
  descriptors_[index].events &= static_cast<short>(~ToPollBit(type));
  if (descriptors_[index].events != 0) return;
  const auto place = static_cast<std::ptrdiff_t>(index);
  descriptors_.erase(descriptors_.begin() + place);
  reactables_.erase(reactables_.begin() + place);
  r.is_registered_ = false;
}

bool Reactor::IsRegistered(const Reactable& r, EventType type) const {
  const size_t index = Find(r);
  return index != 0 && (descriptors_[index].events & ToPollBit(type)) != 0;
}

size_t Reactor::Find(const Reactable& r) const {
  // Our own bug, not a peer's: an object would get another one's events.
  assert(descriptors_.size() == reactables_.size());
  if (!r.is_registered_) return 0;
  for (size_t i = 1; i < reactables_.size(); ++i) {
    if (reactables_[i] == &r) return i;
  }
  return 0;
}

void Reactor::Poll() {
  while (true) {
    // Who has just asked for writing may write at once, as a rule. With many
    // descriptors a look costs a quarter of what it costs to prepare for sleep.
    const int timeout = has_new_writer_ ? 0 : -1;
    has_new_writer_ = false;
    const int ready = poll(descriptors_.data(), descriptors_.size(), timeout);
    if (ready == -1) {
      if (errno == EINTR) continue;
      LOGE("Error polling for sockets: %s", strerror(errno));
      return;
    }
    // A signal ends the loop before anything of its cycle is dispatched. It is
    // never read from the descriptor, so it stays pending and blocked.
    if ((descriptors_[0].revents & POLLIN) != 0) return;
    Dispatch(ready);
  }
}

// Handlers register and unregister objects, so every step reads both vectors
// afresh by index. Where an entry is erased the later ones move down by one,
// with their revents: the one that moves into the current place gets only the
// read test of this step, and one that moves into a place already passed waits
// for the next cycle. That is safe: readiness is level-triggered, so poll()
// reports again whatever was skipped.
void Reactor::Dispatch(int ready) {
  for (size_t i = 1; ready > 0 && i < descriptors_.size(); ++i) {
    if (descriptors_[i].revents == 0) continue;
    // Write before read: what is queued leaves before more comes.
    if ((descriptors_[i].revents & POLLOUT) != 0) {
      reactables_[i]->OnWriteReady();
    }
    if (i < descriptors_.size() && (descriptors_[i].revents & POLLIN) != 0) {
      reactables_[i]->OnReadReady();
    }
    --ready;
  }
}

void Reactor::ForgetAll() {
  for (size_t i = 1; i < reactables_.size(); ++i) {
    reactables_[i]->is_registered_ = false;
  }
  descriptors_.resize(1);
  reactables_.resize(1);
}

}  // namespace vantrel
