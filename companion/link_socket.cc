#include "companion/link_socket.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "support/peer_socket.h"

namespace vantrel {

LinkSocket::LinkSocket(asio::io_context& loop, UniqueFd fd,
                       Descriptor::Handler on_readable,
                       Descriptor::Handler on_writable)
    : descriptor_(std::in_place, loop, std::move(fd), std::move(on_readable),
                  std::move(on_writable)) {
  TuneTcpLink(GetFd());
}

LinkSocket::Result LinkSocket::Read(char* buffer, size_t size, size_t* count) {
  const ssize_t result = read(GetFd(), buffer, size);
  if (result > 0) {
    *count = static_cast<size_t>(result);
    traffic_.tx_bytes += *count;
    return Result::kDone;
  }
  if (result == 0) return Result::kEnded;
  if (errno == EAGAIN)
    return HasHungUp(GetFd()) ? Result::kEnded : Result::kWait;
  return Fail(errno);
}

LinkSocket::Result LinkSocket::Write(const char* data, size_t size,
                                     size_t* count) {
  const ssize_t result = send(GetFd(), data, size, MSG_NOSIGNAL | MSG_DONTWAIT);
  if (result > 0) {
    *count = static_cast<size_t>(result);
    traffic_.rx_bytes += *count;
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
  pollfd out = {GetFd(), POLLOUT, 0};
  return poll(&out, 1, 0) == 1;
}

void LinkSocket::EndWriting() { static_cast<void>(shutdown(GetFd(), SHUT_WR)); }

void LinkSocket::Close() {
  if (descriptor_) static_cast<void>(shutdown(GetFd(), SHUT_RDWR));
  descriptor_.reset();
}

void LinkSocket::SetHold(size_t bytes) {
  if (bytes < hold_ + hold_ / 4 && bytes + hold_ / 4 > hold_) return;
  hold_ = bytes;
  LimitUnsent(GetFd(), bytes);
}

}  // namespace vantrel
