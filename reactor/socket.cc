#include "reactor/socket.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace vantrel {

Socket::~Socket() { close(fd_); }

int Socket::Read(void* buffer, size_t length) const {
  ssize_t result;
  do {
    result = read(fd_, buffer, length);
  } while (result == -1 && errno == EINTR);
  return static_cast<int>(result);
}

int Socket::Write(const void* data, size_t length) const {
  ssize_t result;
  do {
    result = write(fd_, data, length);
  } while (result == -1 && errno == EINTR);
  return static_cast<int>(result);
}

int Socket::WriteGathered(const iovec* pieces, int count) const {
  ssize_t result;
  do {
    result = writev(fd_, pieces, count);
  } while (result == -1 && errno == EINTR);
  return static_cast<int>(result);
}

void Socket::ResetOnClose() const {
  const linger at_once = {1, 0};
  setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
}

}  // namespace vantrel
