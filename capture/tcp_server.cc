#include "capture/tcp_server.h"

#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "capture/tcp_conduit.h"
#include "common/log.h"

namespace vantrel {
namespace {

int AcceptRetrying(int fd) {
  int accepted;
  do {
    accepted = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
  } while (accepted == -1 && errno == EINTR);
  return accepted;
}

bool IsOutOfDescriptors(int error) {
  return error == EMFILE || error == ENFILE;
}

}  // namespace

TcpServer::TcpServer(Reactor& reactor, ProxySocket& link)
    : ServerSocket("[S]"), reactor_(reactor), link_(link) {}

TcpServer::~TcpServer() { reactor_.Unregister(*this, Reactor::kRead); }

uint16_t TcpServer::Listen() {
  if (!Open(SOCK_STREAM) || !Bind(INADDR_LOOPBACK, 0)) return 0;
  const uint16_t port = GetPort();
  if (port == 0) return 0;
  // As long as the kernel allows. A connection that finds the queue full looks
  // complete to its application, which waits for a server that speaks first
  // while nobody here knows of it.
  if (listen(GetFd(), SOMAXCONN) == -1) {
    LOGE("[S] Error listening on socket: %s", strerror(errno));
    return 0;
  }
  TakeReserve();
  reactor_.Register(*this, Reactor::kRead);
  return port;
}

void TcpServer::OnReadReady() {
  const int accepted = AcceptRetrying(GetFd());
  if (accepted == -1) {
    const int error = errno;
    const bool is_refused = IsOutOfDescriptors(error) && reserve_.Get() != -1;
    if (is_refused || no_reserve_log_.AdmitFailure(error)) {
      LOGW("[S] Error accepting client socket: %s", strerror(error));
    }
    if (IsOutOfDescriptors(error)) RefuseConnection();
    return;
  }
  new TcpConduit(reactor_, link_, accepted, ++last_stream_id_, open_conduits_);
}

void TcpServer::RefuseConnection() {
  if (reserve_.Get() != -1) {
    reserve_.Reset();
    const int accepted = AcceptRetrying(GetFd());
    if (accepted != -1) Socket(accepted).ResetOnClose();
  }
  TakeReserve();
}

void TcpServer::TakeReserve() {
  reserve_.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

void TcpServer::ResetConnections() {
  reactor_.Unregister(*this, Reactor::kRead);
  // Resets what waits to be accepted, and whatever comes from now on.
  shutdown(GetFd(), SHUT_RDWR);
  open_conduits_.ResetAll();
}

}  // namespace vantrel
