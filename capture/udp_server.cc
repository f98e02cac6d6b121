#include "capture/udp_server.h"

#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <string>

#include "capture/dns.h"
#include "common/host_and_port.h"
#include "common/log.h"

namespace vantrel {
namespace {

constexpr size_t kMaxDatagramBytes = 65535;
constexpr size_t kControlBytes = 1024;
// Half of what may wait for the link. So what one turn brings finds room on a
// link that keeps up, which writes between two turns.
constexpr size_t kMaxTurnBytes = 32 * 1024;
// What waits in the kernel for the daemon's turn. Its own default holds about
// 256 small datagrams: less than an application may send at one moment, or all
// of them together while the loop does something else.
constexpr int kReceiveBufferBytes = 4 * 1024 * 1024;

// Beyond the system's limit where the right for that is there, else up to it.
// With less more is lost, and nothing else.
void EnlargeReceiveBuffer(int fd) {
  const int size = kReceiveBufferBytes;
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) == 0) {
    return;
  }
  static_cast<void>(setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)));
}

// The destination that the datagram was sent to before it was diverted. False
// when the kernel attached none.
bool GetOriginalDestination(const msghdr& message, HostAndPort* destination) {
  msghdr& header = const_cast<msghdr&>(message);  // CMSG_NXTHDR takes no const
  for (cmsghdr* control = CMSG_FIRSTHDR(&header); control != nullptr;
       control = CMSG_NXTHDR(&header, control)) {
    if (control->cmsg_level == SOL_IP && control->cmsg_type == IP_ORIGDSTADDR &&
        control->cmsg_len >= CMSG_LEN(sizeof(sockaddr_in))) {
      sockaddr_in address;
      memcpy(&address, CMSG_DATA(control), sizeof(address));
      *destination = HostAndPort::FromIPv4Addr(address);
      return true;
    }
  }
  return false;
}

}  // namespace

UdpServer::UdpServer(Reactor& reactor, ProxySocket& link)
    : ServerSocket("[U]"), reactor_(reactor), link_(link) {}

UdpServer::~UdpServer() { reactor_.Unregister(*this, Reactor::kRead); }

uint16_t UdpServer::Listen() {
  if (!Open(SOCK_DGRAM) || !TurnOn(SOL_IP, IP_TRANSPARENT, "IP_TRANSPARENT") ||
      !TurnOn(SOL_IP, IP_RECVORIGDSTADDR, "IP_RECVORIGDSTADDR") ||
      !Bind(INADDR_ANY, 0)) {
    return 0;
  }
  const uint16_t port = GetPort();
  if (port == 0) return 0;
  EnlargeReceiveBuffer(GetFd());
  reactor_.Register(*this, Reactor::kRead);
  return port;
}

void UdpServer::OnReadReady() {
  char data[kMaxDatagramBytes];
  alignas(cmsghdr) char control[kControlBytes];
  size_t received = 0;
  for (int reads = 0; reads < Reactor::kMaxReads && received < kMaxTurnBytes;
       ++reads) {
    sockaddr_in sender = {};
    iovec io = {data, sizeof(data)};
    msghdr message = {};
    message.msg_name = &sender;
    message.msg_namelen = sizeof(sender);
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t count = recvmsg(GetFd(), &message, 0);
    if (count == -1) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) {
        LOGW("[U] Error reading from UdpServer: %s", strerror(errno));
      }
      return;
    }
    received += static_cast<size_t>(count);
    HandleDatagram(message, data, static_cast<size_t>(count));
  }
}

void UdpServer::HandleDatagram(const msghdr& message, const char* data,
                               size_t length) {
  HostAndPort destination;
  if (!GetOriginalDestination(message, &destination)) {
    LOGE("[U] Unable to extract destination address for datagram.");
    return;
  }
  const HostAndPort source = HostAndPort::FromIPv4Addr(
      *static_cast<const sockaddr_in*>(message.msg_name));
  const std::string payload(data, length);
  Dns::LogRequest(destination, payload);
  link_.SendDatagram(source, destination, payload);
}

}  // namespace vantrel
