#pragma once

#include <linux/rtnetlink.h>
#include <stdint.h>

namespace vantrel {

// A question to the kernel's routing table, rtnetlink(7): which way IPv4
// packets to one address go. The answer is an rtmsg with its attributes, or an
// error.
struct route_request_t {
  nlmsghdr header;
  rtmsg route;
  rtattr attribute;
  uint32_t address;
};

// |address| is in network byte order; |sequence| comes back in the answer.
inline route_request_t MakeRouteRequest(uint32_t address, uint32_t sequence) {
  route_request_t request = {};
  request.header.nlmsg_len = sizeof(request);
  request.header.nlmsg_type = RTM_GETROUTE;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.header.nlmsg_seq = sequence;
  request.route.rtm_family = AF_INET;
  request.route.rtm_dst_len = 32;
  request.attribute.rta_type = RTA_DST;
  request.attribute.rta_len = RTA_LENGTH(sizeof(request.address));
  request.address = address;
  return request;
}

}  // namespace vantrel
