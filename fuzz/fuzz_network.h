// For the fuzz targets that use real sockets.
#pragma once

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <string>

#include "common/host_and_port.h"
#include "common/network_testing.h"
#include "reactor/socket.h"

namespace vantrel {

// To be called by LLVMFuzzerInitialize(), before there are threads: a namespace
// with nothing but its loopback, and a write to a closed socket is an error, as
// in our programs. Ends the program as skipped where there is no namespace.
inline void NeedPrivateNetwork() {
  signal(SIGPIPE, SIG_IGN);
  if (EnterPrivateNetwork()) return;
  fprintf(stderr, "no network namespace\n");
  exit(77);
}

// How many descriptors the process has open.
inline int CountDescriptors() {
  DIR* const directory = opendir("/proc/self/fd");
  if (directory == nullptr) return -1;
  int count = 0;
  while (readdir(directory) != nullptr) ++count;
  closedir(directory);
  return count;
}

inline HostAndPort Loopback(uint16_t port) {
  return HostAndPort::FromIPv4NetworkBytes(htonl(INADDR_LOOPBACK), htons(port));
}

// A socket of one of the programs that a fuzz target plays: it never blocks,
// and its end is a reset, so that no port stays taken for a minute.
class FuzzSocket : public Socket {
 public:
  explicit FuzzSocket(int type)
      : Socket(socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    ResetOnClose();
  }
  bool Bind(uint16_t port) const {
    const int on = 1;
    setsockopt(GetFd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const sockaddr_in address = Loopback(port).GetSockAddrV4();
    return bind(GetFd(), reinterpret_cast<const sockaddr*>(&address),
                sizeof(address)) == 0;
  }
  void Connect(const HostAndPort& to) const {
    const sockaddr_in address = to.GetSockAddrV4();
    static_cast<void>(connect(
        GetFd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  }
  // The bytes that the socket takes at once.
  size_t Send(const std::string& bytes) const {
    const ssize_t count =
        send(GetFd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return count > 0 ? static_cast<size_t>(count) : 0;
  }
  void SendTo(const HostAndPort& to, const std::string& bytes) const {
    const sockaddr_in address = to.GetSockAddrV4();
    static_cast<void>(
        sendto(GetFd(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
  }
};

}  // namespace vantrel
