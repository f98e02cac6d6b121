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

request_t MakeRequest(const IpAddress& address) {
  request_t request = {};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST;
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
  const request_t request = MakeRequest(address);
  if (send(fd_, &request, sizeof(request), 0) == -1) return std::nullopt;
  // The answer is there when the question was taken.
  alignas(nlmsghdr) char answer[4096];
  const ssize_t length = recv(fd_, answer, sizeof(answer), MSG_DONTWAIT);
  if (length < static_cast<ssize_t>(sizeof(nlmsghdr))) return std::nullopt;
  nlmsghdr header;
  memcpy(&header, answer, sizeof(header));
  // An address without a route is nobody's.
  if (header.nlmsg_type == NLMSG_ERROR) return false;
  rtmsg route;
  if (length < static_cast<ssize_t>(NLMSG_HDRLEN + sizeof(route))) {
    return std::nullopt;
  }
  memcpy(&route, answer + NLMSG_HDRLEN, sizeof(route));
  return route.rtm_type == RTN_LOCAL || route.rtm_type == RTN_BROADCAST ||
         route.rtm_type == RTN_ANYCAST || route.rtm_type == RTN_MULTICAST;
}

}  // namespace vantrel
