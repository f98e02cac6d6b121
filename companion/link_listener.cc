#include "companion/link_listener.h"

// The RFCOMM header uses the types of this one without including it.
#include <bluetooth/bluetooth.h>
// Keeps this order.
#include <bluetooth/rfcomm.h>
#include <errno.h>
#include <netdb.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "companion/companion_log.h"

namespace vantrel {
namespace {

// Devices that may wait while one is served.
constexpr int kBacklog = 8;

// Whether |address| is a socket file that was left behind: nobody answers.
bool IsStale(const sockaddr_un& address) {
  struct stat file;
  if (lstat(address.sun_path, &file) == -1 || !S_ISSOCK(file.st_mode)) {
    return false;
  }
  const Socket probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  return connect(probe.GetFd(), reinterpret_cast<const sockaddr*>(&address),
                 sizeof(address)) == -1 &&
         errno == ECONNREFUSED;
}

bool Fail(const std::string& where, const char* why) {
  Log("cannot listen on %s: %s", ToPrintable(where).c_str(), why);
  return false;
}

// The endpoint that |fd| is really bound to.
std::string DescribeTcp(int fd) {
  sockaddr_storage address;
  socklen_t length = sizeof(address);
  char host[NI_MAXHOST] = "?";
  char port[NI_MAXSERV] = "?";
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (getsockname(fd, generic, &length) == 0) {
    getnameinfo(generic, length, host, sizeof(host), port, sizeof(port),
                NI_NUMERICHOST | NI_NUMERICSERV);
  }
  return std::string("tcp:") + host + ":" + port;
}

constexpr int kMaxPort = 65535;
constexpr int kMaxRfcommChannel = 30;

bool IsNumberUpTo(const std::string& text, int max) {
  return !text.empty() && text.size() <= 5 &&
         text.find_first_not_of("0123456789") == std::string::npos &&
         std::stoi(text) <= max;
}

}  // namespace

bool LinkAddress::Parse(const std::string& text, LinkAddress* out) {
  const size_t first = text.find(':');
  const size_t last = text.rfind(':');
  if (first == std::string::npos) return false;
  const std::string kind = text.substr(0, first);
  const std::string rest = text.substr(first + 1);
  *out = LinkAddress();
  if (kind == "unix") {
    out->path_or_host = rest;
    return !rest.empty();
  }
  if (kind == "rfcomm") {
    out->kind = Kind::kRfcomm;
    if (!IsNumberUpTo(rest, kMaxRfcommChannel)) return false;
    out->channel = std::stoi(rest);
    return out->channel > 0;
  }
  if (kind != "tcp" || last <= first + 1) return false;
  out->kind = Kind::kTcp;
  out->port = text.substr(last + 1);
  out->path_or_host = text.substr(first + 1, last - first - 1);
  std::string& host = out->path_or_host;
  if (host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  return IsNumberUpTo(out->port, kMaxPort);
}

LinkListener::LinkListener(Reactor& reactor,
                           std::function<void(int fd)> on_link)
    : reactor_(reactor), on_link_(std::move(on_link)) {}

LinkListener::~LinkListener() {
  reactor_.Unregister(*this, Reactor::kRead);
  struct stat file;
  if (!path_.empty() && lstat(path_.c_str(), &file) == 0 &&
      file.st_dev == device_ && file.st_ino == inode_) {
    unlink(path_.c_str());
  }
}

bool LinkListener::Open(const LinkAddress& address) {
  switch (address.kind) {
    case LinkAddress::Kind::kUnix:
      return OpenUnix(address.path_or_host);
    case LinkAddress::Kind::kTcp:
      return OpenTcp(address);
    case LinkAddress::Kind::kRfcomm:
      return OpenRfcomm(address.channel);
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
  SetFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  int result = bind(GetFd(), generic, sizeof(address));
  if (result == -1 && errno == EADDRINUSE && IsStale(address)) {
    unlink(address.sun_path);
    result = bind(GetFd(), generic, sizeof(address));
  }
  if (result == -1) return Fail(where, strerror(errno));
  struct stat file = {};
  if (lstat(address.sun_path, &file) == 0) {
    path_ = path;
    device_ = file.st_dev;
    inode_ = file.st_ino;
  }
  return Listen(where);
}

bool LinkListener::OpenTcp(const LinkAddress& address) {
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
  SetFd(socket(found->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int on = 1;
  setsockopt(GetFd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(GetFd(), found->ai_addr, found->ai_addrlen) == -1) {
    return Fail(where, strerror(errno));
  }
  return Listen(DescribeTcp(GetFd()));
}

bool LinkListener::OpenRfcomm(int channel) {
  const std::string where = "rfcomm:" + std::to_string(channel);
  SetFd(socket(AF_BLUETOOTH, SOCK_STREAM | SOCK_CLOEXEC, BTPROTO_RFCOMM));
  if (GetFd() == -1) {
    const bool missing = errno == EAFNOSUPPORT || errno == EPROTONOSUPPORT;
    return Fail(where, missing ? "this kernel has no Bluetooth sockets"
                               : strerror(errno));
  }
  sockaddr_rc address = {};  // any adapter
  address.rc_family = AF_BLUETOOTH;
  address.rc_channel = static_cast<uint8_t>(channel);
  if (bind(GetFd(), reinterpret_cast<const sockaddr*>(&address),
           sizeof(address)) == -1) {
    return Fail(where, strerror(errno));
  }
  return Listen(where);
}

bool LinkListener::Listen(const std::string& where) {
  if (listen(GetFd(), kBacklog) == -1) return Fail(where, strerror(errno));
  Log("listening on %s", ToPrintable(where).c_str());
  return true;
}

void LinkListener::Accept() { reactor_.Register(*this, Reactor::kRead); }

void LinkListener::OnReadReady() {
  const int fd = accept4(GetFd(), nullptr, nullptr, SOCK_CLOEXEC);
  if (fd == -1) {
    // The device may have gone again; the next one is waited for.
    if (errno != EAGAIN) Log("no link accepted: %s", strerror(errno));
    return;
  }
  reactor_.Unregister(*this, Reactor::kRead);
  on_link_(fd);
}

}  // namespace vantrel
