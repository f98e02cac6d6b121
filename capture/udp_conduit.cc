#include "capture/udp_conduit.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include "capture/dns.h"
#include "common/interception.h"
#include "common/log.h"
#include "common/log_limiter.h"

namespace vantrel {
namespace {

constexpr uint32_t kMaxOtherSenders = 1024;

bool IsApplicationAddress(const IpAddress& address) {
  return address.GetFamily() == AF_INET &&
         address.GetAddrV4() == htonl(kApplicationAddress);
}

ssize_t SendTo(int fd, const std::string& payload,
               const HostAndPort& destination) {
  const sockaddr_in address = destination.GetSockAddrV4();
  ssize_t result;
  do {
    result =
        sendto(fd, payload.data(), payload.size(), 0,
               reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } while (result == -1 && errno == EINTR);
  return result;
}

}  // namespace

UdpConduit::UdpConduit(Reactor& reactor, const HostAndPort& remote)
    : reactor_(reactor), remote_(remote), other_senders_(kMaxOtherSenders) {}

UdpConduit::~UdpConduit() { reactor_.Unregister(*this, Reactor::kWrite); }

bool UdpConduit::Bind() {
  if (GetFd() != -1) return true;
  const void* const self = this;
  SetFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  if (GetFd() == -1) {
    const int error = errno;
    static LogLimiter limiter;
    if (limiter.AdmitFailure(error)) {
      LOGE("[SU] %p Error creating UDP socket: %s", self, strerror(error));
    }
    errno = error;
    return false;
  }
  const int on = 1;
  if (setsockopt(GetFd(), SOL_IP, IP_TRANSPARENT, &on, sizeof(on)) == -1) {
    const int error = errno;
    LOGE("[SU] %p Unable to set IP_TRANSPARENT: %s", self, strerror(error));
    errno = error;
    return false;
  }
  const sockaddr_in address = remote_.GetSockAddrV4();
  // The kernel would take the zero address of another family for "any", and
  // answers would leave from the wrong one.
  if (address.sin_family != AF_INET) errno = EAFNOSUPPORT;
  if (address.sin_family != AF_INET ||
      bind(GetFd(), reinterpret_cast<const sockaddr*>(&address),
           sizeof(address)) == -1) {
    const int error = errno;
    LOGE("[SU] %p Unable to bind to source address %s: %s", self,
         remote_.ToString().c_str(), strerror(error));
    errno = error;
    return false;
  }
  LOGD("[SU] %p Ready to tunnel: %s", self, remote_.ToString().c_str());
  return true;
}

void UdpConduit::NoteSender(const HostAndPort& local) {
  if (!IsApplicationAddress(local.host)) other_senders_.Insert(local, true);
}

bool UdpConduit::IsAnswerable(const HostAndPort& local) {
  return IsApplicationAddress(local.host) ||
         other_senders_.Find(local) != nullptr;
}

void UdpConduit::SendResponse(const HostAndPort& destination,
                              const std::string& payload) {
  Dns::LogResponse(remote_, payload);
  if (response_queue_.empty()) reactor_.Register(*this, Reactor::kWrite);
  response_queue_.push_back({destination, payload});
}

void UdpConduit::SendFailure(const HostAndPort& destination,
                             const std::string& request) {
  if (remote_.port != Dns::kPort || request.size() < Dns::kHeaderSize) return;
  LOGD("[SU] UDP %p DNS remote failed", static_cast<void*>(this));
  std::string answer = request;
  answer[2] = static_cast<char>(answer[2] | Dns::kResponseFlag);
  answer[3] = Dns::kRefused;
  SendResponse(destination, answer);
}

void UdpConduit::OnWriteReady() {
  while (!response_queue_.empty()) {
    const response_queue_item_t& item = response_queue_.front();
    const bool sent = SendTo(GetFd(), item.payload, item.destination) != -1;
    if (!sent && errno == EAGAIN) return;
    if (!sent) {
      LOGE("[SU] UDP %p Error writing datagram to %s: %s",
           static_cast<void*>(this), item.destination.ToString().c_str(),
           strerror(errno));
    }
    response_queue_.pop_front();
    // Only this one answer is lost; the rest goes at the next readiness.
    if (!sent) return;
  }
  reactor_.Unregister(*this, Reactor::kWrite);
}

}  // namespace vantrel
