#pragma once

#include <assert.h>

namespace vantrel {

// What the Reactor polls. Whoever registers an object unregisters it before it
// is destroyed: the reactor keeps only the pointer.
class Reactable {
 public:
  Reactable() = default;
  Reactable(const Reactable&) = delete;
  Reactable& operator=(const Reactable&) = delete;
  // Our own bug, not a peer's: the reactor would call a dead object.
  virtual ~Reactable() { assert(!is_registered_); }

  // Called by the reactor while the descriptor is readable or writable. A
  // handler may register and unregister objects, also itself, and may destroy
  // its own object as its last act.
  virtual void OnReadReady() = 0;
  virtual void OnWriteReady() = 0;

  // The descriptor to poll; it must not change while registered.
  virtual int GetFd() const = 0;

 private:
  friend class Reactor;
  // Kept by the reactor.
  bool is_registered_ = false;
  int non_blocking_fd_ = -1;  // the descriptor that it made so
};

}  // namespace vantrel
