#include "companion/datagram_flow.h"

#include <errno.h>
#include <linux/errqueue.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "support/socket_address.h"

namespace vantrel {
namespace {

// More than any datagram has.
constexpr size_t kReceiveBufferBytes = 65536;
// Of each flow's last request; more than a name look-up has, and the device
// looks at no other that failed.
constexpr size_t kMaxKeptBytes = 4096;
// Datagrams taken from one flow before the others have their turn.
constexpr int kMaxReceivesPerTurn = 16;

}  // namespace

DatagramFlow::DatagramFlow(const link_parts_t& link, Owner& owner,
                           const HostAndPort& local, const HostAndPort& remote,
                           const std::optional<HostAndPort>& target)
    : link_(link),
      owner_(owner),
      local_(local),
      remote_(remote),
      target_(target),
      place_(link.sockets),
      application_(link.applications.GetUnknown()) {}

DatagramFlow::~DatagramFlow() { link_.scheduler.Remove(this); }

void DatagramFlow::SetPolicy(const flow_policy_t& policy) {
  to_device_.Set(policy.limits_to_device, [this] {
    link_.run([this] {
      link_.scheduler.Resume(this, GetGroup());
      link_.on_waiting();
    });
  });
  from_device_ = policy.limits_from_device;
  priority_ = policy.priority;
  quotas_ = policy.quotas;
  // It may have waited for a limit that it does not have any more.
  link_.scheduler.Resume(this, GetGroup());
}

void DatagramFlow::Send(const std::string& payload) {
  application_counts_t& counts = application_.GetCounts();
  ++counts.datagrams_from_device;
  counts.bytes_from_device += payload.size();
  if (!MaySend(payload.size())) {
    ++counts.datagrams_dropped;
    return LogDetail("dropped: above its limit", "");
  }
  if (!target_) {
    ++counts.datagrams_dropped;
    return QueueFailure(payload);
  }
  AddToAll(quotas_, payload.size());
  if (socket_ == nullptr && !Open()) {
    LogDetail("no socket: ", strerror(errno));
    return QueueFailure(payload);
  }
  int error = Transmit(payload);
  if (error != 0 && error != EAGAIN) {
    // Most likely the error of an earlier datagram, which takes the place of
    // this one's result: report that and try once more.
    ReceiveErrors();
    error = Transmit(payload);
  }
  last_request_.assign(payload, 0, kMaxKeptBytes);
  if (error == 0) return;
  LogDetail("not sent: ", strerror(error));
  // A full queue loses datagrams as any network does.
  if (error != EAGAIN && error != ENOBUFS) QueueFailure(payload);
}

bool DatagramFlow::MaySend(size_t bytes) {
  if (from_device_.empty()) return true;
  const SteadyTime now = GetSteadyTime();
  const bool may_send = std::all_of(
      from_device_.begin(), from_device_.end(),
      [now](const auto& limiter) { return limiter->HasTokens(now); });
  if (!may_send) return false;
  for (const auto& limiter : from_device_) limiter->Take(bytes);
  return true;
}

bool DatagramFlow::TakeMessage(size_t max_payload, std::string* out) {
  if (!to_device_.MaySend()) return false;
  if (QueuedFlow::TakeMessage(max_payload, out)) return true;
  to_device_.Rest();
  return false;
}

void DatagramFlow::OnTaken(const message_t& message) {
  if (!message.payload_bytes) return;
  to_device_.Charge(*message.payload_bytes);
  ++application_.GetCounts().datagrams_to_device;
  application_.GetCounts().bytes_to_device += *message.payload_bytes;
  AddToAll(quotas_, *message.payload_bytes);
}

void DatagramFlow::OnDropped(const message_t& message) {
  if (message.payload_bytes) ++application_.GetCounts().datagrams_dropped;
}

// A socket that reports ICMP errors together with what they quote.
bool DatagramFlow::Open() {
  UniqueFd fd = OpenSocket(link_, target_->host.GetFamily(), SOCK_DGRAM);
  if (fd.Get() == -1) return false;
  const int on = 1;
  const bool is_ipv6 = target_->host.GetFamily() == AF_INET6;
  setsockopt(fd.Get(), is_ipv6 ? SOL_IPV6 : SOL_IP,
             is_ipv6 ? IPV6_RECVERR : IP_RECVERR, &on, sizeof(on));
  if (ConnectTo(fd.Get(), *target_) == -1) return false;
  socket_ = std::make_unique<Descriptor>(link_.loop, std::move(fd), [this] {
    link_.run([this] { OnReadable(); });
  });
  socket_->WaitReadable();
  return true;
}

int DatagramFlow::Transmit(const std::string& payload) {
  const ssize_t result = send(socket_->GetFd(), payload.data(), payload.size(),
                              MSG_NOSIGNAL | MSG_DONTWAIT);
  return result == -1 ? errno : 0;
}

void DatagramFlow::OnReadable() {
  int received = 0;
  while (received < kMaxReceivesPerTurn && ReceiveOne()) ++received;
  // What is left in the error queue wakes us although recv() has no error.
  if (received == 0) ReceiveErrors();
  socket_->WaitReadable();
  link_.on_waiting();  // may destroy this
}

bool DatagramFlow::ReceiveOne() {
  static char buffer[kReceiveBufferBytes];
  const ssize_t count = recv(socket_->GetFd(), buffer, sizeof(buffer), 0);
  if (count == -1) {
    if (errno != EAGAIN) ReceiveErrors();
    return false;
  }
  owner_.OnFlowUsed(*this);
  const std::string payload(buffer, static_cast<size_t>(count));
  if (payload.size() > link_.protocol.GetMaxDatagramBytes()) {
    link_.log.Write(LogLevel::kWarning, LogKind::kDatagram,
                    "datagram of %zu bytes from %s dropped: too large for the "
                    "link",
                    payload.size(), remote_.ToString().c_str());
    return true;
  }
  if (IsLogWanted(LogLevel::kDebug)) {
    LogDetail("answer of bytes: ", std::to_string(count).c_str());
  }
  std::string message;
  link_.protocol.PutDatagram(&message, local_, remote_, payload);
  link_.scheduler.Queue(this, GetGroup(),
                        {std::move(message), GetSteadyTime(), payload.size()});
  return true;
}

void DatagramFlow::ReceiveErrors() {
  const int fd = socket_->GetFd();
  // Bounded, like everything that a remote can make longer.
  for (int turn = 0; turn < kMaxReceivesPerTurn; ++turn) {
    char quoted[2048];
    alignas(cmsghdr) char control[512];
    iovec data = {quoted, sizeof(quoted)};
    msghdr message = {};
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t count = recvmsg(fd, &message, MSG_ERRQUEUE);
    if (count == -1) break;
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c != nullptr;
         c = CMSG_NXTHDR(&message, c)) {
      const bool is_error =
          (c->cmsg_level == SOL_IP && c->cmsg_type == IP_RECVERR) ||
          (c->cmsg_level == SOL_IPV6 && c->cmsg_type == IPV6_RECVERR);
      if (!is_error) continue;
      sock_extended_err error;
      memcpy(&error, CMSG_DATA(c), sizeof(error));
      ReportError(error, std::string(quoted, static_cast<size_t>(count)));
    }
  }
  // An error without an entry in the queue would be reported for ever.
  int pending;
  socklen_t length = sizeof(pending);
  static_cast<void>(getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &length));
}

void DatagramFlow::ReportError(const sock_extended_err& error,
                               const std::string& quoted) {
  // Only tells the kernel the size of the path; it fragments what follows.
  const bool is_icmp = error.ee_origin == SO_EE_ORIGIN_ICMP ||
                       error.ee_origin == SO_EE_ORIGIN_ICMP6;
  if (!is_icmp || error.ee_errno == EMSGSIZE) return;
  owner_.OnFlowFailed(*this);
  LogDetail("", strerror(static_cast<int>(error.ee_errno)));
  // Of an older request than the last only what the network quoted of it.
  const bool is_last = last_request_.compare(0, quoted.size(), quoted) == 0;
  QueueFailure(is_last ? last_request_ : quoted);
}

// Does not start to send: the link may end by that, and this object with it.
// What called will do so as its last act.
void DatagramFlow::QueueFailure(const std::string& request) {
  if (request.size() > link_.protocol.GetMaxDatagramBytes()) return;
  std::string message;
  link_.protocol.PutUdpFailure(&message, local_, remote_, request);
  link_.scheduler.Queue(this, GetGroup(),
                        {std::move(message), GetSteadyTime(), std::nullopt});
}

void DatagramFlow::LogDetail(const char* what, const char* more) {
  if (!IsLogWanted(LogLevel::kDebug)) return;
  link_.log.Write(LogLevel::kDebug, LogKind::kDatagram,
                  "datagram %s -> %s: %s%s", local_.ToString().c_str(),
                  remote_.ToString().c_str(), what, more);
}

}  // namespace vantrel
