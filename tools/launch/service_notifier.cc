#include "tools/launch/service_notifier.h"

#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace vantrel {

ServiceNotifier::ServiceNotifier() {
  const char* const name = getenv("NOTIFY_SOCKET");
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (name == nullptr || strlen(name) >= sizeof(address.sun_path)) return;
  memcpy(address.sun_path, name, strlen(name));
  if (name[0] == '@') address.sun_path[0] = '\0';
  socket_.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const socklen_t length =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(name));
  if (connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address),
              length) != 0) {
    socket_.Reset();
  }
}

void ServiceNotifier::Send(const std::string& message) {
  if (socket_.Get() < 0) return;
  static_cast<void>(send(socket_.Get(), message.data(), message.size(),
                         MSG_NOSIGNAL | MSG_DONTWAIT));
}

}  // namespace vantrel
