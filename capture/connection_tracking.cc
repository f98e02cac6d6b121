#include "capture/connection_tracking.h"

#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <netinet/in.h>
#include <stdint.h>
#include <sys/socket.h>

#include <algorithm>

#include "common/byte_order.h"

namespace vantrel {
namespace {

constexpr uint16_t kQuestion = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_GET;
constexpr uint16_t kAnswer = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW;

std::string Attribute(uint16_t type, const std::string& value) {
  const auto length = static_cast<uint16_t>(NLA_HDRLEN + value.size());
  std::string attribute;
  PutRecord(&attribute, nlattr{length, type});
  attribute += value;
  attribute.resize(NLA_ALIGN(length));
  return attribute;
}

std::string Nest(uint16_t type, const std::string& attributes) {
  return Attribute(static_cast<uint16_t>(NLA_F_NESTED | type), attributes);
}

std::string Port(uint16_t port) {
  std::string bytes;
  PutBe16(&bytes, port);
  return bytes;
}

// The value of the attribute |type| among |attributes|; empty when there is
// none.
std::string_view FindAttribute(std::string_view attributes, uint16_t type) {
  nlattr attribute;
  std::string_view rest = attributes;
  while (TakeRecord(&rest, &attribute)) {
    if (attribute.nla_len < NLA_HDRLEN) break;
    const size_t size = attribute.nla_len - NLA_HDRLEN;
    if (size > rest.size()) break;
    if ((attribute.nla_type & NLA_TYPE_MASK) == type) {
      return rest.substr(0, size);
    }
    rest.remove_prefix(std::min<size_t>(NLA_ALIGN(size), rest.size()));
  }
  return {};
}

bool GetEndpoint(std::string_view tuple, uint16_t address_type,
                 uint16_t port_type, HostAndPort* endpoint) {
  const std::string_view address =
      FindAttribute(FindAttribute(tuple, CTA_TUPLE_IP), address_type);
  const std::string_view port =
      FindAttribute(FindAttribute(tuple, CTA_TUPLE_PROTO), port_type);
  if (address.size() != sizeof(in_addr) || port.size() != sizeof(in_port_t)) {
    return false;
  }
  *endpoint = HostAndPort(IpAddress::FromNetworkBytes(std::string(address)),
                          GetBe16(port.data()));
  return true;
}

}  // namespace

std::string EncodeTrackingQuestion(const HostAndPort& local,
                                   const HostAndPort& peer) {
  const std::string ends =
      Nest(CTA_TUPLE_IP,
           Attribute(CTA_IP_V4_SRC, local.host.ToNetworkBytes()) +
               Attribute(CTA_IP_V4_DST, peer.host.ToNetworkBytes())) +
      Nest(CTA_TUPLE_PROTO,
           Attribute(CTA_PROTO_NUM, std::string(1, IPPROTO_TCP)) +
               Attribute(CTA_PROTO_SRC_PORT, Port(local.port)) +
               Attribute(CTA_PROTO_DST_PORT, Port(peer.port)));
  std::string question;
  PutRecord(&question, nfgenmsg{AF_INET, NFNETLINK_V0, 0});
  return question + Nest(CTA_TUPLE_REPLY, ends);
}

bool DecodeTrackingAnswer(std::string_view answer,
                          tracked_connection_t* found) {
  nfgenmsg family;
  if (!TakeRecord(&answer, &family)) return false;
  const std::string_view made = FindAttribute(answer, CTA_TUPLE_ORIG);
  return GetEndpoint(made, CTA_IP_V4_SRC, CTA_PROTO_SRC_PORT, &found->source) &&
         GetEndpoint(made, CTA_IP_V4_DST, CTA_PROTO_DST_PORT,
                     &found->destination);
}

bool ConnectionTracking::Find(const HostAndPort& local, const HostAndPort& peer,
                              tracked_connection_t* found) {
  const bool is_ipv4 =
      local.host.GetFamily() == AF_INET && peer.host.GetFamily() == AF_INET;
  std::string answer;
  return is_ipv4 &&
         socket_.Ask(kQuestion, EncodeTrackingQuestion(local, peer), kAnswer,
                     &answer) == 0 &&
         DecodeTrackingAnswer(answer, found);
}

}  // namespace vantrel
