#include "support/peer_socket.h"

#include <bluetooth/bluetooth.h>
#include <bluetooth/rfcomm.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

namespace vantrel {
namespace {

// Each option makes the link better and none is needed; which of them exist
// depends on the kind of socket.
bool SetOption(int fd, int level, int name, int value) {
  return setsockopt(fd, level, name, &value, sizeof(value)) == 0;
}

uint8_t GetSecurityLevel(LinkSecurity security) {
  switch (security) {
    case LinkSecurity::kLow:
      return BT_SECURITY_LOW;
    case LinkSecurity::kMedium:
      return BT_SECURITY_MEDIUM;
    case LinkSecurity::kHigh:
      return BT_SECURITY_HIGH;
  }
  return BT_SECURITY_HIGH;
}

}  // namespace

UniqueFd OpenRfcommSocket(LinkSecurity security) {
  UniqueFd fd(socket(AF_BLUETOOTH, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC,
                     BTPROTO_RFCOMM));
  bt_security wanted = {};
  wanted.level = GetSecurityLevel(security);
  if (fd.Get() >= 0 && setsockopt(fd.Get(), SOL_BLUETOOTH, BT_SECURITY, &wanted,
                                  sizeof(wanted)) != 0) {
    const int error = errno;
    fd.Reset();
    errno = error;
  }
  return fd;
}

std::string DescribeBluetoothFailure(int error) {
  std::string reason = strerror(error);
  switch (error) {
    case EAFNOSUPPORT:
    case EPROTONOSUPPORT:
      return "this kernel has no Bluetooth sockets";
    case EHOSTDOWN:
      return reason + "; is it in reach, and its adapter on?";
    case EHOSTUNREACH:
      return reason + "; is this machine's adapter on?";
    case EACCES:
    case EBADE:
      return reason + "; are the two machines still paired?";
    default:
      return reason;
  }
}

void TuneTcpLink(int fd) {
  SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  // An idle peer that vanished is noticed after 10 + 3 * 5 s, a busy one after
  // as long.
  if (!SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 10)) return;
  SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 5);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 3);
  SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, 25000);
}

bool HasHungUp(int fd) {
  pollfd state = {fd, 0, 0};
  return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

void LimitUnsent(int fd, size_t bytes) {
  const int limit = static_cast<int>(bytes);
  // Others than TCP refuse the first. They count what the bytes take in the
  // kernel's memory, about twice their number, and so does the size that the
  // kernel makes of the second.
  if (!SetOption(fd, IPPROTO_TCP, TCP_NOTSENT_LOWAT, limit)) {
    SetOption(fd, SOL_SOCKET, SO_SNDBUF, limit);
  }
}

}  // namespace vantrel
