#include "reactor/server_socket.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "common/log.h"

namespace vantrel {

bool ServerSocket::Open(int type) {
  const bool is_tcp = type == SOCK_STREAM;
  SetFd(
      socket(AF_INET, type | SOCK_CLOEXEC, is_tcp ? IPPROTO_TCP : IPPROTO_UDP));
  if (GetFd() != -1) return true;
  LOGE("%s Error creating %s socket: %s", component_, is_tcp ? "TCP" : "UDP",
       strerror(errno));
  return false;
}

bool ServerSocket::TurnOn(int level, int option, const char* name) {
  const int on = 1;
  if (setsockopt(GetFd(), level, option, &on, sizeof(on)) == 0) return true;
  LOGE("%s Unable to set %s: %s", component_, name, strerror(errno));
  return false;
}

bool ServerSocket::Bind(uint32_t address, uint16_t port) {
  sockaddr_in local = {};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(address);
  local.sin_port = htons(port);
  if (bind(GetFd(), reinterpret_cast<sockaddr*>(&local), sizeof(local)) == 0) {
    return true;
  }
  LOGE("%s Error binding server socket: %s", component_, strerror(errno));
  return false;
}

uint16_t ServerSocket::GetPort() {
  sockaddr_in local = {};
  socklen_t length = sizeof(local);
  if (getsockname(GetFd(), reinterpret_cast<sockaddr*>(&local), &length) == 0) {
    return ntohs(local.sin_port);
  }
  LOGE("%s Error getting port for socket: %s", component_, strerror(errno));
  return 0;
}

}  // namespace vantrel
