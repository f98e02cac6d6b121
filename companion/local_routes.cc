#include "companion/local_routes.h"

#include <linux/rtnetlink.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace vantrel {
namespace {

struct request_t {
  nlmsghdr header;
  rtmsg route;
  rtattr attribute;
  uint32_t address;  // network byte order
};

// The front of an answer; an error, which is larger, has its number in place of
// the route.
struct answer_t {
  nlmsghdr header;
  rtmsg route;
};

request_t MakeRequest(const IpAddress& address, uint32_t sequence) {
  request_t request = {};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.header.nlmsg_seq = sequence;
  request.route.rtm_family = AF_INET;
  request.route.rtm_dst_len = 32;
  request.attribute.rta_type = RTA_DST;
  request.attribute.rta_len = RTA_LENGTH(sizeof(request.address));
  request.address = address.GetAddrV4();
  return request;
}

}  // namespace

LocalRoutes::LocalRoutes()
    : fd_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}

LocalRoutes::~LocalRoutes() {
  if (fd_ != -1) close(fd_);
}

std::optional<bool> LocalRoutes::IsLocal(const IpAddress& address) {
  const request_t request = MakeRequest(address, ++sequence_);
  if (send(fd_, &request, sizeof(request), 0) == -1) return std::nullopt;
  // The answer is there when the question was taken. One to an earlier question
  // may be in front of it, if that could not be read.
  while (true) {
    alignas(nlmsghdr) char bytes[4096];
    const ssize_t length = recv(fd_, bytes, sizeof(bytes), MSG_DONTWAIT);
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

}  // namespace vantrel
