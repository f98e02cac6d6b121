#include "companion/local_routes.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <utility>

#include "support/route_request.h"

namespace vantrel {
namespace {

// Of a busy router, before other work has its turn.
constexpr int kMaxChangesPerTurn = 64;

// The front of an answer; an error, which is larger, has its number in place of
// the route.
struct answer_t {
  nlmsghdr header;
  rtmsg route;
};

UniqueFd OpenRoutes() {
  return UniqueFd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
}

}  // namespace

LocalRoutes::LocalRoutes() : fd_(OpenRoutes()) {}

std::optional<bool> LocalRoutes::IsLocal(const IpAddress& address) {
  const route_request_t request =
      MakeRouteRequest(address.GetAddrV4(), ++sequence_);
  if (send(fd_.Get(), &request, sizeof(request), 0) == -1) return std::nullopt;
  // The answer is there when the question was taken. One to an earlier question
  // may be in front of it, if that could not be read.
  while (true) {
    alignas(nlmsghdr) char bytes[4096];
    const ssize_t length = recv(fd_.Get(), bytes, sizeof(bytes), MSG_DONTWAIT);
    answer_t answer;
    if (length < static_cast<ssize_t>(sizeof(answer))) return std::nullopt;
    memcpy(&answer, bytes, sizeof(answer));
    if (answer.header.nlmsg_seq != sequence_) continue;
    // An address without a route is nobody's.
    if (answer.header.nlmsg_type == NLMSG_ERROR) return false;
    const unsigned char type = answer.route.rtm_type;
    return type == RTN_LOCAL || type == RTN_BROADCAST || type == RTN_ANYCAST ||
           type == RTN_MULTICAST;
  }
}

void LocalRoutes::Watch(asio::io_context& loop,
                        std::function<void()> on_change) {
  UniqueFd fd = OpenRoutes();
  sockaddr_nl name = {};
  name.nl_family = AF_NETLINK;
  // A new address of the machine is in the first two; an address can also be
  // made the machine's by a route or a rule alone.
  name.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV4_RULE;
  if (bind(fd.Get(), reinterpret_cast<const sockaddr*>(&name), sizeof(name)) ==
      -1) {
    return;
  }
  on_change_ = std::move(on_change);
  changes_ =
      std::make_unique<Descriptor>(loop, std::move(fd), [this] { OnChange(); });
  changes_->WaitReadable();
}

// What has changed does not matter: whoever asks next gets the new answer.
void LocalRoutes::OnChange() {
  char bytes[64];
  for (int i = 0; i < kMaxChangesPerTurn; ++i) {
    // An error other than these says that some changes were lost.
    if (recv(changes_->GetFd(), bytes, sizeof(bytes), MSG_DONTWAIT) == -1 &&
        (errno == EAGAIN || errno == EINTR)) {
      break;
    }
  }
  on_change_();
  changes_->WaitReadable();
}

}  // namespace vantrel
