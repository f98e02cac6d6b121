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
    : reactor_(reactor), link_(link) {}

UdpServer::~UdpServer() { reactor_.Unregister(*this, Reactor::kRead); }

uint16_t UdpServer::Listen() {
  SetFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  if (GetFd() == -1) {
    LOGE("[U] Error creating UDP socket: %s", strerror(errno));
    return 0;
  }
  const int on = 1;
  if (setsockopt(GetFd(), SOL_IP, IP_TRANSPARENT, &on, sizeof(on)) == -1) {
    LOGE("[U] Unable to set IP_TRANSPARENT: %s", strerror(errno));
    return 0;
  }
  if (setsockopt(GetFd(), SOL_IP, IP_RECVORIGDSTADDR, &on, sizeof(on)) == -1) {
    LOGE("[U] Unable to set IP_RECVORIGDSTADDR: %s", strerror(errno));
    return 0;
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  if (bind(GetFd(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) ==
      -1) {
    LOGE("[U] Error binding server socket: %s", strerror(errno));
    return 0;
  }
  socklen_t length = sizeof(address);
  if (getsockname(GetFd(), reinterpret_cast<sockaddr*>(&address), &length) ==
      -1) {
    LOGE("[U] Error getting port for socket: %s", strerror(errno));
    return 0;
  }
  reactor_.Register(*this, Reactor::kRead);
  return ntohs(address.sin_port);
}

void UdpServer::OnReadReady() {
  char data[kMaxDatagramBytes];
  alignas(cmsghdr) char control[kControlBytes];
  for (int reads = 0; reads < Reactor::kMaxReads; ++reads) {
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
