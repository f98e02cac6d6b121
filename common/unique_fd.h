#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace vantrel {

// Owns one open descriptor, or none, and closes it when destroyed. Passed by
// value, it says who owns what: the caller has none afterwards.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~UniqueFd() { Reset(); }

  int Get() const { return fd_; }  // -1 when there is none
  // Gives it up without closing it.
  int Release() { return std::exchange(fd_, -1); }
  void Reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// One more descriptor of what |fd| has open, closed on exec. None on failure,
// with errno.
inline UniqueFd Duplicate(int fd) {
  return UniqueFd(fcntl(fd, F_DUPFD_CLOEXEC, 0));
}

}  // namespace vantrel
