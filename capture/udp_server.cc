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
  reactor_.Register(*this, Reactor::kRead);
  return port;
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
