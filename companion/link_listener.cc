#include "companion/link_listener.h"

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

}  // namespace

bool LinkAddress::Parse(const std::string& text, LinkAddress* out) {
  if (text.compare(0, 5, "unix:") == 0 && text.size() > 5) {
    *out = LinkAddress{Kind::kUnix, text.substr(5), ""};
    return true;
  }
  const size_t colon = text.rfind(':');
  if (text.compare(0, 4, "tcp:") != 0 || colon <= 4) return false;
  const std::string port = text.substr(colon + 1);
  const bool is_number =
      !port.empty() && port.size() <= 5 &&
      port.find_first_not_of("0123456789") == std::string::npos;
  if (!is_number || std::stoi(port) > 65535) return false;
  std::string host = text.substr(4, colon - 4);
  if (host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  }
  *out = LinkAddress{Kind::kTcp, host, port};
  return true;
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
