#include "capture/tcp_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "capture/tcp_conduit.h"
#include "common/log.h"

namespace vantrel {
namespace {

constexpr int kBacklog = 10;

int AcceptRetrying(int fd) {
  int accepted;
  do {
    accepted = accept(fd, nullptr, nullptr);
  } while (accepted == -1 && errno == EINTR);
  return accepted;
}

}  // namespace

TcpServer::TcpServer(Reactor& reactor, ProxySocket& link)
    : reactor_(reactor), link_(link) {}

TcpServer::~TcpServer() { reactor_.Unregister(*this, Reactor::kRead); }

uint16_t TcpServer::Listen() {
  SetFd(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  if (GetFd() == -1) {
    LOGE("[S] Error creating TCP socket: %s", strerror(errno));
    return 0;
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(GetFd(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) ==
      -1) {
    LOGE("[S] Error binding server socket: %s", strerror(errno));
    return 0;
  }
  socklen_t length = sizeof(address);
  if (getsockname(GetFd(), reinterpret_cast<sockaddr*>(&address), &length) ==
      -1) {
    LOGE("[S] Error getting port for socket: %s", strerror(errno));
    return 0;
  }
  if (listen(GetFd(), kBacklog) == -1) {
    LOGE("[S] Error listening on socket: %s", strerror(errno));
    return 0;
  }
  reactor_.Register(*this, Reactor::kRead);
  return ntohs(address.sin_port);
}

void TcpServer::OnReadReady() {
  const int accepted = AcceptRetrying(GetFd());
  if (accepted == -1) {
    LOGW("[S] Error accepting client socket: %s", strerror(errno));
    return;
  }
  new TcpConduit(reactor_, link_, accepted, ++last_stream_id_);
}

}  // namespace vantrel
