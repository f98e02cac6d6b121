#include "companion/datagram_flows.h"

#include <errno.h>
#include <linux/errqueue.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <iterator>
#include <utility>

#include "companion/companion_log.h"

namespace vantrel {
namespace {

constexpr uint16_t kDnsPort = 53;
// More than any datagram has.
constexpr size_t kReceiveBufferBytes = 65536;
// Datagrams taken from one flow before the others have their turn.
constexpr int kMaxReceivesPerTurn = 16;

std::string Describe(const std::pair<HostAndPort, HostAndPort>& ends) {
  return ends.first.ToString() + " -> " + ends.second.ToString();
}

// A socket connected to |remote|, which reports ICMP errors together with what
// they quote. -1 with errno set.
int OpenConnectedSocket(const HostAndPort& remote) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd == -1) {
    Log("no socket for datagrams: %s", strerror(errno));
    return -1;
  }
  const int on = 1;
  setsockopt(fd, SOL_IP, IP_RECVERR, &on, sizeof(on));
  const sockaddr_in address = remote.GetSockAddrV4();
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address),
              sizeof(address)) == 0) {
    return fd;
  }
  const int error = errno;
  close(fd);
  errno = error;
  return -1;
}

}  // namespace

DatagramFlows::DatagramFlows(Reactor& reactor, Sink& sink,
                             std::optional<HostAndPort> dns_server)
    : Socket(epoll_create1(EPOLL_CLOEXEC)),
      reactor_(reactor),
      sink_(sink),
      dns_server_(std::move(dns_server)) {
  if (GetFd() == -1) Log("no answers to datagrams: %s", strerror(errno));
  reactor_.Register(*this, Reactor::kRead);
}

DatagramFlows::~DatagramFlows() { reactor_.Unregister(*this, Reactor::kRead); }

void DatagramFlows::Send(const HostAndPort& local, const HostAndPort& remote,
                         const std::string& payload) {
  flow_t* flow = FindOrCreate(Ends(local, remote));
  if (flow == nullptr) return sink_.OnFailure(local, remote, payload);
  int sent = flow->socket.Write(payload.data(), payload.size());
  if (sent == -1 && errno != EAGAIN) {
    // Most likely the error of an earlier datagram, which takes the place of
    // this one's result: report that and try once more.
    ReceiveErrors(flow);
    sent = flow->socket.Write(payload.data(), payload.size());
  }
  flow->last_request = payload;
  if (sent != -1) return;
  LogDetail("datagram %s: not sent: %s", Describe(flow->ends).c_str(),
            strerror(errno));
  // A full queue loses datagrams as any network does.
  if (errno != EAGAIN && errno != ENOBUFS) {
    sink_.OnFailure(local, remote, payload);
  }
}

DatagramFlows::flow_t* DatagramFlows::FindOrCreate(const Ends& ends) {
  const auto found = index_.find(ends);
  if (found == index_.end()) return Create(ends);
  Touch(found->second);
  return &*found->second;
}

DatagramFlows::flow_t* DatagramFlows::Create(const Ends& ends) {
  const bool is_dns = ends.second.port == kDnsPort;
  const int fd = OpenConnectedSocket(is_dns ? dns_server_.value_or(ends.second)
                                            : ends.second);
  if (fd == -1) {
    LogDetail("datagram %s: %s", Describe(ends).c_str(), strerror(errno));
    return nullptr;
  }
  if (flows_.size() >= kMaxFlows) Forget(flows_.begin());
  flows_.emplace_back(ends, fd);
  flow_t* flow = &flows_.back();
  flow->last_used_tick = tick_;
  index_.emplace(ends, std::prev(flows_.end()));
  epoll_event interest = {};
  interest.events = EPOLLIN;
  interest.data.ptr = flow;
  if (epoll_ctl(GetFd(), EPOLL_CTL_ADD, fd, &interest) == -1) {
    Log("datagram %s: no answers: %s", Describe(ends).c_str(), strerror(errno));
  }
  return flow;
}

void DatagramFlows::Touch(Flows::iterator flow) {
  flow->last_used_tick = tick_;
  flows_.splice(flows_.end(), flows_, flow);
}

void DatagramFlows::Forget(Flows::iterator flow) {
  index_.erase(flow->ends);
  flows_.erase(flow);  // closing the socket takes it out of the epoll instance
}

void DatagramFlows::OnTick() {
  ++tick_;
  while (!flows_.empty() &&
         tick_ - flows_.front().last_used_tick >= kMaxIdleTicks) {
    Forget(flows_.begin());
  }
}

void DatagramFlows::Clear() {
  index_.clear();
  flows_.clear();
}

void DatagramFlows::Resume() { reactor_.Register(*this, Reactor::kRead); }

// Nothing in here forgets a flow, so the pointers of all events stay valid.
void DatagramFlows::OnReadReady() {
  epoll_event events[64];
  const int count = epoll_wait(GetFd(), events, 64, 0);
  for (int i = 0; i < count; ++i) {
    auto* flow = static_cast<flow_t*>(events[i].data.ptr);
    if ((events[i].events & EPOLLERR) != 0) ReceiveErrors(flow);
    for (int turn = 0; turn < kMaxReceivesPerTurn; ++turn) {
      if (!sink_.HasRoomForAnswer()) {
        return reactor_.Unregister(*this, Reactor::kRead);
      }
      if (!ReceiveOne(flow)) break;
    }
  }
}

bool DatagramFlows::ReceiveOne(flow_t* flow) {
  char buffer[kReceiveBufferBytes];
  const ssize_t count = recv(flow->socket.GetFd(), buffer, sizeof(buffer), 0);
  if (count == -1) return false;
  Touch(index_.at(flow->ends));
  LogDetail("datagram %s: answer of %zd bytes", Describe(flow->ends).c_str(),
            count);
  sink_.OnAnswer(flow->ends.first, flow->ends.second,
                 std::string(buffer, static_cast<size_t>(count)));
  return true;
}

void DatagramFlows::ReceiveErrors(flow_t* flow) {
  const int fd = flow->socket.GetFd();
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
      if (c->cmsg_level != SOL_IP || c->cmsg_type != IP_RECVERR) continue;
      sock_extended_err error;
      memcpy(&error, CMSG_DATA(c), sizeof(error));
      ReportError(*flow, error, std::string(quoted, size_t(count)));
    }
  }
  // An error without an entry in the queue would be reported for ever.
  int pending;
  socklen_t length = sizeof(pending);
  static_cast<void>(getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &length));
}

void DatagramFlows::ReportError(const flow_t& flow,
                                const sock_extended_err& error,
                                const std::string& quoted) {
  // Only tells the kernel the size of the path; it fragments what follows.
  if (error.ee_origin != SO_EE_ORIGIN_ICMP || error.ee_errno == EMSGSIZE) {
    return;
  }
  LogDetail("datagram %s: %s", Describe(flow.ends).c_str(),
            strerror(static_cast<int>(error.ee_errno)));
  const bool is_last = flow.last_request.compare(0, quoted.size(), quoted) == 0;
  sink_.OnFailure(flow.ends.first, flow.ends.second,
                  is_last ? flow.last_request : quoted);
}

}  // namespace vantrel
