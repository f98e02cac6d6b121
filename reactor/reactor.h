#pragma once

#include <poll.h>
#include <stddef.h>

#include <vector>

#include "reactor/reactable.h"

namespace vantrel {

// The program's one event loop: a single-threaded poll() over every registered
// descriptor and a signal descriptor through which SIGINT and SIGTERM end it.
// There are no timers; whatever depends on time is checked when an event
// arrives. Does not own what is registered.
class Reactor {
 public:
  // The values are the poll bits on purpose. Any other value means no event.
  enum EventType : int {
    kRead = POLLIN,
    kWrite = POLLOUT,
  };

  // A handler that reads until nothing is left returns after so many reads:
  // others must have their turn, and a signal its effect, while somebody sends
  // faster than the handler reads. Polling reports the rest again.
  static constexpr int kMaxReads = 64;
  // The same for bytes that are queued for others: more than this does not stay
  // in the processor's caches until it is written.
  static constexpr size_t kMaxReadBytes = 128 * 1024;

  Reactor();
  ~Reactor();
  Reactor(const Reactor&) = delete;
  Reactor& operator=(const Reactor&) = delete;

  // Blocks SIGINT and SIGTERM (they stay blocked afterwards) and dispatches
  // events until one of them arrives or polling fails. On return nothing is
  // registered any more. Logs and returns at once when signals cannot be set
  // up.
  void Start();

  // Ends the loop after the current cycle, from inside a handler. Works by
  // raising SIGTERM: outside Start() that ends the process.
  void Stop();

  // Adds interest in |type|. At an object's first registration its descriptor
  // is read, and made non-blocking unless that was done for it before.
  void Register(Reactable& r, EventType type);
  // Removes interest in |type|; without any interest left the object is
  // forgotten. Does nothing for an object that is not registered.
  void Unregister(Reactable& r, EventType type);
  bool IsRegistered(const Reactable& r, EventType type) const;

 private:
  // The index of |r| in both vectors; 0 when it is not registered.
  size_t Find(const Reactable& r) const;
  void Poll();
  void Dispatch(int ready);
  void ForgetAll();

  // Whether a handler has asked for writing since the last poll.
  bool has_new_writer_ = false;
  // Always of the same length. Entry 0 is the signal descriptor and null.
  std::vector<pollfd> descriptors_;
  std::vector<Reactable*> reactables_;
};

}  // namespace vantrel
