#include "support/socket_file.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/link_address.h"

namespace vantrel {
namespace {

// Whether |path| is a socket file that was left behind: nobody answers. A
// listener whose queue is full answers, too.
bool IsStale(const char* path, const sockaddr* address, socklen_t length) {
  struct stat file;
  if (lstat(path, &file) == -1 || !S_ISSOCK(file.st_mode)) return false;
  const UniqueFd probe(
      socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  return connect(probe.Get(), address, length) == -1 && errno == ECONNREFUSED;
}

}  // namespace

std::string FindFaultOfSocketPath(const std::string& path) {
  std::string reason;
  ParseLinkAddress("unix:" + path, LinkSide::kListen, &reason);
  return reason;
}

SocketFile::~SocketFile() {
  struct stat file;
  if (!path_.empty() && lstat(path_.c_str(), &file) == 0 &&
      file.st_dev == device_ && file.st_ino == inode_) {
    unlink(path_.c_str());
  }
}

UniqueFd SocketFile::Bind(const std::string& path) {
  sockaddr_un name;
  const socklen_t length = ToSocketAddress(path, &name);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&name);
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  is_abstract_ = name.sun_path[0] == '\0';
  int result = bind(fd.Get(), generic, length);
  if (result == -1 && errno == EADDRINUSE && !is_abstract_) {
    if (IsStale(name.sun_path, generic, length)) {
      unlink(name.sun_path);
      result = bind(fd.Get(), generic, length);
    } else {
      errno = EADDRINUSE;  // the look at it has set another
    }
  }
  if (result == -1 || !(is_abstract_ || OwnFile(path))) return UniqueFd();
  return fd;
}

// Nobody can connect before there is somebody who listens.
bool SocketFile::OwnFile(const std::string& path) {
  struct stat file = {};
  if (chmod(path.c_str(), 0600) == -1 || lstat(path.c_str(), &file) == -1) {
    return false;
  }
  path_ = path;
  device_ = file.st_dev;
  inode_ = file.st_ino;
  return true;
}

// An abstract name has no mode that keeps other users out.
bool SocketFile::Admits(int fd) const {
  if (!is_abstract_) return true;
  ucred peer = {};
  socklen_t length = sizeof(peer);
  getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &length);
  return peer.uid == 0 || peer.uid == geteuid();
}

}  // namespace vantrel
