#include "companion/link_socket.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

namespace vantrel {
namespace {

// Each option makes the link better and none is needed; which of them exist
// depends on the kind of socket.
void SetOption(int fd, int level, int name, int value) {
  static_cast<void>(setsockopt(fd, level, name, &value, sizeof(value)));
}

// An idle peer that vanished is noticed after 10 + 3 * 5 s, a busy one after
// 25 s.
void TuneTcp(int fd) {
  SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 5);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
  SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 25000);
}

}  // namespace

LinkSocket::LinkSocket(asio::io_context& loop, int fd,
                       Descriptor::Handler on_readable,
                       Descriptor::Handler on_writable)
    : descriptor_(loop, fd, std::move(on_readable), std::move(on_writable)) {
  socklen_t length = sizeof(domain_);
  static_cast<void>(getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain_, &length));
  if (domain_ == AF_INET || domain_ == AF_INET6) TuneTcp(fd);
}

LinkSocket::Result LinkSocket::Read(char* buffer, size_t size, size_t* count) {
  const ssize_t result = read(descriptor_.GetFd(), buffer, size);
  if (result > 0) {
    *count = static_cast<size_t>(result);
    return Result::kDone;
  }
  if (result == 0) return Result::kEnded;
  if (errno == EAGAIN) return IsHungUp() ? Result::kEnded : Result::kWait;
  return Fail(errno);
}

LinkSocket::Result LinkSocket::Write(const char* data, size_t size,
                                     size_t* count) {
  const ssize_t result =
      send(descriptor_.GetFd(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (result > 0) {
    *count = static_cast<size_t>(result);
    return Result::kDone;
  }
  return errno == EAGAIN ? Result::kWait : Fail(errno);
}

LinkSocket::Result LinkSocket::Fail(int error) {
  if (error == EINTR) return Result::kWait;
  // A device that leaves with bytes of ours unread resets the link.
  if (error == ECONNRESET || error == EPIPE) return Result::kEnded;
  reason_ = strerror(error);
  return Result::kFailed;
}

bool LinkSocket::HasRoom() const {
  pollfd out = {descriptor_.GetFd(), POLLOUT, 0};
  return poll(&out, 1, 0) == 1;
}

bool LinkSocket::IsHungUp() const {
  pollfd state = {descriptor_.GetFd(), 0, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

void LinkSocket::EndWriting() {
  static_cast<void>(shutdown(descriptor_.GetFd(), SHUT_WR));
}

// Over TCP the buffer also has what is on its way, which must not be limited.
// The others count what the bytes take in the kernel's memory, about twice
// their number, and so does the size that the kernel makes of the option.
void LinkSocket::SetHold(size_t bytes) {
  if (bytes < hold_ + hold_ / 4 && bytes + hold_ / 4 > hold_) return;
  hold_ = bytes;
  const int value = static_cast<int>(bytes);
  if (domain_ == AF_INET || domain_ == AF_INET6) {
    SetOption(descriptor_.GetFd(), IPPROTO_TCP, TCP_NOTSENT_LOWAT, value);
  } else {
    SetOption(descriptor_.GetFd(), SOL_SOCKET, SO_SNDBUF, value);
  }
}

}  // namespace vantrel
