#include "tools/control_port.h"

#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tools/system_failure.h"

namespace vantrel {

ControlPort::ControlPort()
    : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(kControlPort);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  // Connected, so that a refusal is reported to this socket.
  if (socket_.Get() < 0 ||
      connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address),
              sizeof(address)) != 0) {
    throw SystemFailure("no way to the control port");
  }
}

void ControlPort::Send(const std::string& packet) {
  if (send(socket_.Get(), packet.data(), packet.size(), 0) < 0) {
    throw SystemFailure("cannot send to the control port");
  }
}

bool ControlPort::IsRefused() const {
  int error = 0;
  socklen_t length = sizeof(error);
  getsockopt(socket_.Get(), SOL_SOCKET, SO_ERROR, &error, &length);
  return error == ECONNREFUSED;
}

}  // namespace vantrel
