#include "companion/link_listener.h"

// The RFCOMM header uses the types of this one without including it.
#include <bluetooth/bluetooth.h>
// Keeps this order.
#include <bluetooth/rfcomm.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <utility>

#include "companion/companion_log.h"

namespace vantrel {
namespace {

// Devices that may wait until they are accepted.
constexpr int kBacklog = 64;
// How long to wait when the system has no descriptor for another link.
constexpr std::chrono::seconds kRetryTime{1};

bool Fail(const std::string& where, const char* why) {
  ProgramLog().Write(LogLevel::kError, LogKind::kLink,
                     "cannot listen on %s: %s", where.c_str(), why);
  return false;
}

bool FailAndClose(int fd, const std::string& where) {
  const int error = errno;
  if (fd != -1) close(fd);
  return Fail(where, strerror(error));
}

// Whether |address| is a socket file that was left behind: nobody answers. A
// listener whose queue is full answers, too.
bool IsStale(const sockaddr_un& address) {
  struct stat file;
  if (lstat(address.sun_path, &file) == -1 || !S_ISSOCK(file.st_mode)) {
    return false;
  }
  const int probe =
      socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  const bool is_refused =
      connect(probe, reinterpret_cast<const sockaddr*>(&address),
              sizeof(address)) == -1 &&
      errno == ECONNREFUSED;
  close(probe);
  return is_refused;
}

std::string DescribeTcp(const sockaddr_storage& address, socklen_t length) {
  char host[NI_MAXHOST] = "?";
  char port[NI_MAXSERV] = "?";
  getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host,
              sizeof(host), port, sizeof(port),
              NI_NUMERICHOST | NI_NUMERICSERV);
  return std::string("tcp:") + host + ":" + port;
}

std::string DescribeRfcomm(const sockaddr_storage& address) {
  sockaddr_rc rfcomm;
  memcpy(&rfcomm, &address, sizeof(rfcomm));
  char text[18];
  const uint8_t* const b = rfcomm.rc_bdaddr.b;  // last byte first
  snprintf(text, sizeof(text), "%02X:%02X:%02X:%02X:%02X:%02X", b[5], b[4],
           b[3], b[2], b[1], b[0]);
  return std::string("rfcomm:") + text;
}

std::string DescribeUnix(int fd) {
  ucred peer = {};
  socklen_t length = sizeof(peer);
  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
  return "unix: process " + std::to_string(peer.pid) + " of user " +
         std::to_string(peer.uid);
}

std::string DescribePeer(int fd, const sockaddr_storage& address,
                         socklen_t length) {
  if (address.ss_family == AF_UNIX) return DescribeUnix(fd);
  return address.ss_family == AF_BLUETOOTH ? DescribeRfcomm(address)
                                           : DescribeTcp(address, length);
}

bool IsLoopback(const sockaddr& address) {
  if (address.sa_family == AF_INET6) {
    sockaddr_in6 v6;
    memcpy(&v6, &address, sizeof(v6));
    return IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr) != 0;
  }
  sockaddr_in v4;
  memcpy(&v4, &address, sizeof(v4));
  return address.sa_family == AF_INET &&
         ntohl(v4.sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
}

bt_security MakeSecurity(LinkSecurity security) {
  bt_security option = {};
  option.level = security == LinkSecurity::kLow      ? BT_SECURITY_LOW
                 : security == LinkSecurity::kMedium ? BT_SECURITY_MEDIUM
                                                     : BT_SECURITY_HIGH;
  return option;
}

}  // namespace

LinkListener::LinkListener(asio::io_context& loop, OnLink on_link)
    : loop_(loop), on_link_(std::move(on_link)), retry_(loop) {}

LinkListener::~LinkListener() {
  struct stat file;
  if (!path_.empty() && lstat(path_.c_str(), &file) == 0 &&
      file.st_dev == device_ && file.st_ino == inode_) {
    unlink(path_.c_str());
  }
}

bool LinkListener::Open(const LinkAddress& address,
                        const settings_t& settings) {
  switch (address.kind) {
    case LinkAddress::Kind::kUnix:
      return OpenUnix(address.path_or_host);
    case LinkAddress::Kind::kTcp:
      return OpenTcp(address, settings.allows_remote_links);
    case LinkAddress::Kind::kRfcomm:
      return OpenRfcomm(address.channel, settings.security);
  }
  return false;
}

bool LinkListener::OpenUnix(const std::string& path) {
  const std::string where = "unix:" + path;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) {
    return Fail(where, "path too long");
  }
  memcpy(address.sun_path, path.data(), path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  int result = bind(fd, generic, sizeof(address));
  if (result == -1 && errno == EADDRINUSE) {
    if (IsStale(address)) {
      unlink(address.sun_path);
      result = bind(fd, generic, sizeof(address));
    } else {
      errno = EADDRINUSE;  // the look at it has set another
    }
  }
  struct stat file = {};
  // Nobody can connect before there is somebody who listens.
  if (result == -1 || chmod(address.sun_path, 0600) == -1 ||
      lstat(address.sun_path, &file) == -1) {
    return FailAndClose(fd, where);
  }
  path_ = path;
  device_ = file.st_dev;
  inode_ = file.st_ino;
  return Listen(fd, where);
}

bool LinkListener::OpenTcp(const LinkAddress& address,
                           bool allows_remote_links) {
  const std::string where = "tcp:" + address.path_or_host + ":" + address.port;
  addrinfo hints = {};
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(address.path_or_host.c_str(),
                                address.port.c_str(), &hints, &found);
  if (error != 0) return Fail(where, gai_strerror(error));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found,
                                                                 freeaddrinfo);
  if (!IsLoopback(*found->ai_addr)) {
    if (!allows_remote_links) {
      return Fail(where, "other machines reach it; see --allow-remote-links");
    }
    ProgramLog().Write(LogLevel::kWarning, LogKind::kLink,
                       "whoever reaches %s can use this machine's network and "
                       "read along: put a tunnel in front of it",
                       where.c_str());
  }
  const int fd = socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_storage bound = {};
  socklen_t length = sizeof(bound);
  if (bind(fd, found->ai_addr, found->ai_addrlen) == -1 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length) == -1) {
    return FailAndClose(fd, where);
  }
  return Listen(fd, DescribeTcp(bound, length));
}

bool LinkListener::OpenRfcomm(int channel, LinkSecurity security) {
  const std::string where = "rfcomm:" + std::to_string(channel);
  const int fd =
      socket(AF_BLUETOOTH, SOCK_STREAM | SOCK_CLOEXEC, BTPROTO_RFCOMM);
  if (fd == -1) {
    const bool missing = errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT;
    return Fail(where, missing ? "this kernel has no Bluetooth sockets"
                               : strerror(errno));
  }
  const bt_security option = MakeSecurity(security);
  sockaddr_rc address = {};  // any adapter
  address.rc_family = AF_BLUETOOTH;
  address.rc_channel = static_cast<uint8_t>(channel);
  if (setsockopt(fd, SOL_BLUETOOTH, BT_SECURITY, &option, sizeof(option)) ==
          -1 ||
      bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
          -1) {
    return FailAndClose(fd, where);
  }
  return Listen(fd, where);
}

bool LinkListener::Listen(int fd, const std::string& where) {
  if (listen(fd, kBacklog) == -1) return FailAndClose(fd, where);
  socket_ = std::make_unique<Descriptor>(
      loop_, fd, [this] { OnReadable(); }, [] {});
  socket_->WaitReadable();
  ProgramLog().Write(LogLevel::kInfo, LogKind::kLink, "listening on %s",
                     where.c_str());
  return true;
}

void LinkListener::OnReadable() {
  sockaddr_storage address = {};
  socklen_t length = sizeof(address);
  const int fd =
      accept4(socket_->GetFd(), reinterpret_cast<sockaddr*>(&address), &length,
              SOCK_CLOEXEC);
  if (fd != -1) {
    on_link_(fd, DescribePeer(fd, address, length));
    return socket_->WaitReadable();
  }
  // The device may have gone again; the next one is waited for.
  if (errno == EAGAIN || errno == ECONNABORTED || errno == EINTR) {
    return socket_->WaitReadable();
  }
  ProgramLog().Write(LogLevel::kWarning, LogKind::kLink, "no link accepted: %s",
                     strerror(errno));
  retry_.expires_after(kRetryTime);
  retry_.async_wait([this](const asio::error_code& error) {
    if (!error) socket_->WaitReadable();
  });
}

}  // namespace vantrel
