#include "capture/connection_tracking.h"

#include <errno.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netfilter/nfnetlink_conntrack.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string_view>

#include "common/byte_order.h"
#include "common/log.h"

namespace vantrel {
namespace {

// Of one connection; the kernel's message has a few hundred bytes.
constexpr size_t kMaxAnswerBytes = 4096;
// Answers to questions that were given up, in front of the one that is awaited.
constexpr int kMaxStaleAnswers = 8;

// The kernel's own records are copied as they are: they never leave the
// machine.
template <typename Record>
void PutRecord(std::string* out, const Record& record) {
  out->append(reinterpret_cast<const char*>(&record), sizeof(record));
}

// False when |bytes| are fewer than that.
template <typename Record>
bool TakeRecord(std::string_view* bytes, Record* record) {
  if (bytes->size() < sizeof(*record)) return false;
  memcpy(record, bytes->data(), sizeof(*record));
  bytes->remove_prefix(sizeof(*record));
  return true;
}

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
                                   const HostAndPort& peer, uint32_t sequence) {
  const std::string ends =
      Nest(CTA_TUPLE_IP,
           Attribute(CTA_IP_V4_SRC, local.host.ToNetworkBytes()) +
               Attribute(CTA_IP_V4_DST, peer.host.ToNetworkBytes())) +
      Nest(CTA_TUPLE_PROTO,
           Attribute(CTA_PROTO_NUM, std::string(1, IPPROTO_TCP)) +
               Attribute(CTA_PROTO_SRC_PORT, Port(local.port)) +
               Attribute(CTA_PROTO_DST_PORT, Port(peer.port)));
  std::string body;
  PutRecord(&body, nfgenmsg{AF_INET, NFNETLINK_V0, 0});
  body += Nest(CTA_TUPLE_REPLY, ends);

  nlmsghdr header = {};
  header.nlmsg_len = static_cast<uint32_t>(NLMSG_HDRLEN + body.size());
  header.nlmsg_type = NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_GET;
  header.nlmsg_flags = NLM_F_REQUEST;
  header.nlmsg_seq = sequence;
  std::string question;
  PutRecord(&question, header);
  return question + body;
}

int DecodeTrackingAnswer(const char* answer, size_t size, uint32_t sequence,
                         tracked_connection_t* found) {
  std::string_view bytes(answer, size);
  nlmsghdr header;
  if (!TakeRecord(&bytes, &header)) return EBADMSG;
  if (header.nlmsg_seq != sequence) return EAGAIN;
  nlmsgerr refusal;
  if (header.nlmsg_type == NLMSG_ERROR) {
    return TakeRecord(&bytes, &refusal) && refusal.error < 0 ? -refusal.error
                                                             : EBADMSG;
  }
  nfgenmsg family;
  if (header.nlmsg_type != (NFNL_SUBSYS_CTNETLINK << 8 | IPCTNL_MSG_CT_NEW) ||
      !TakeRecord(&bytes, &family)) {
    return EBADMSG;
  }
  const std::string_view made = FindAttribute(bytes, CTA_TUPLE_ORIG);
  const bool is_good =
      GetEndpoint(made, CTA_IP_V4_SRC, CTA_PROTO_SRC_PORT, &found->source) &&
      GetEndpoint(made, CTA_IP_V4_DST, CTA_PROTO_DST_PORT, &found->destination);
  return is_good ? 0 : EBADMSG;
}

ConnectionTracking::~ConnectionTracking() {
  if (fd_ != -1) close(fd_);
}

bool ConnectionTracking::Find(const HostAndPort& local, const HostAndPort& peer,
                              tracked_connection_t* found) {
  const bool is_ipv4 =
      local.host.GetFamily() == AF_INET && peer.host.GetFamily() == AF_INET;
  if (!is_ipv4 || is_given_up_ || !Open()) return false;
  ++sequence_;
  const int error = Ask(EncodeTrackingQuestion(local, peer, sequence_), found);
  if (error == 0) return true;
  if (error == EPERM || error == EACCES || error == EINVAL ||
      error == EOPNOTSUPP) {
    GiveUp(error);
  }
  return false;
}

bool ConnectionTracking::Open() {
  if (fd_ != -1) return true;
  fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
  if (fd_ != -1) return true;
  const int error = errno;
  const bool is_want =
      error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
  if (!is_want) GiveUp(error);
  return false;
}

// The kernel answers before it has taken the question from us, so nothing here
// waits.
int ConnectionTracking::Ask(const std::string& question,
                            tracked_connection_t* found) {
  if (send(fd_, question.data(), question.size(), MSG_DONTWAIT) == -1) {
    return errno;
  }
  int error = EAGAIN;
  for (int i = 0; error == EAGAIN && i <= kMaxStaleAnswers; ++i) {
    char answer[kMaxAnswerBytes];
    const ssize_t count = recv(fd_, answer, sizeof(answer), MSG_DONTWAIT);
    if (count == -1) return errno;
    error = DecodeTrackingAnswer(answer, static_cast<size_t>(count), sequence_,
                                 found);
  }
  return error;
}

// For good: the kernel would look for a module with every further question.
void ConnectionTracking::GiveUp(int error) {
  is_given_up_ = true;
  LOGI("[S] No connection tracking over netlink: %s", strerror(error));
}

}  // namespace vantrel
