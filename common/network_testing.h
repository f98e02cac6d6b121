// For unit tests: a network of the test program's own.
#pragma once

#include <net/if.h>
#include <sched.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vantrel {

// Moves the process into a network namespace with nothing but its loopback
// interface, where it may use transparent sockets, also without root. False
// where the kernel does not allow that.
inline bool EnterPrivateNetwork() {
  static const bool entered = [] {
    if (unshare(CLONE_NEWNET) == -1 &&
        unshare(CLONE_NEWUSER | CLONE_NEWNET) == -1) {
      return false;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool up = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return up;
  }();
  return entered;
}

}  // namespace vantrel
