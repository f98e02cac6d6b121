#pragma once

#include <stddef.h>

#include "reactor/reactable.h"

struct iovec;

namespace vantrel {

// Owns one descriptor and closes it when destroyed. The base of everything
// that is polled: a subclass overrides the handlers it needs and unregisters
// itself in its own destructor, before this one closes the descriptor.
class Socket : public Reactable {
 public:
  Socket() = default;
  // Takes ownership of |fd|.
  explicit Socket(int fd) : fd_(fd) {}
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() override;

  void OnReadReady() override {}
  void OnWriteReady() override {}
  int GetFd() const override { return fd_; }  // -1 when there is none

  // As read(2) and write(2), retried while interrupted: the number of bytes, 0
  // at end of stream, -1 with errno set. A short write is returned as it is.
  int Read(void* buffer, size_t length) const;
  int Write(const void* data, size_t length) const;
  // As writev(2): of |count| pieces, likewise.
  int WriteGathered(const iovec* pieces, int count) const;

  // Makes a TCP connection end with a reset when it is closed, and not with
  // what looks to its peer like a complete stream.
  void ResetOnClose() const;

 protected:
  // Takes ownership of |fd|; for subclasses that open theirs later. Must not
  // be called while a descriptor is held.
  void SetFd(int fd) { fd_ = fd; }

 private:
  int fd_ = -1;
};

}  // namespace vantrel
