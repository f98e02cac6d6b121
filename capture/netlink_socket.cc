#include "capture/netlink_socket.h"

#include <errno.h>
#include <linux/netlink.h>
#include <string.h>
#include <sys/socket.h>

#include "common/log.h"

namespace vantrel {
namespace {

// Of one thing; the kernel's message has a few hundred bytes.
constexpr size_t kMaxAnswerBytes = 4096;
// Answers to questions that were given up, in front of the one that is awaited.
constexpr int kMaxStaleAnswers = 8;

}  // namespace

std::string EncodeNetlinkQuestion(uint16_t type, const std::string& body,
                                  uint32_t sequence) {
  nlmsghdr header = {};
  header.nlmsg_len = static_cast<uint32_t>(NLMSG_HDRLEN + body.size());
  header.nlmsg_type = type;
  header.nlmsg_flags = NLM_F_REQUEST;
  header.nlmsg_seq = sequence;
  std::string question;
  PutRecord(&question, header);
  return question + body;
}

int DecodeNetlinkAnswer(std::string_view answer, uint32_t sequence,
                        uint16_t type, std::string_view* body) {
  nlmsghdr header;
  if (!TakeRecord(&answer, &header)) return EBADMSG;
  if (header.nlmsg_seq != sequence) return EAGAIN;
  if (header.nlmsg_type == NLMSG_ERROR) {
    nlmsgerr refusal;
    return TakeRecord(&answer, &refusal) && refusal.error < 0 ? -refusal.error
                                                              : EBADMSG;
  }
  if (header.nlmsg_type != type) return EBADMSG;
  *body = answer;
  return 0;
}

int NetlinkSocket::Ask(uint16_t type, const std::string& body,
                       uint16_t answer_type, std::string* answer) {
  if (is_given_up_ || !Open()) return EOPNOTSUPP;
  const int error = Exchange(EncodeNetlinkQuestion(type, body, ++sequence_),
                             answer_type, answer);
  if (error == EPERM || error == EACCES || error == EINVAL ||
      error == EOPNOTSUPP) {
    GiveUp(error);
  }
  return error;
}

bool NetlinkSocket::Open() {
  if (fd_.Get() != -1) return true;
  fd_.Reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol_));
  if (fd_.Get() != -1) return true;
  const int error = errno;
  const bool is_want =
      error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
  if (!is_want) GiveUp(error);
  return false;
}

// The kernel answers before it has taken the question from us, so nothing here
// waits.
int NetlinkSocket::Exchange(const std::string& question, uint16_t answer_type,
                            std::string* answer) {
  if (send(fd_.Get(), question.data(), question.size(), MSG_DONTWAIT) == -1) {
    return errno;
  }
  int error = EAGAIN;
  for (int i = 0; error == EAGAIN && i <= kMaxStaleAnswers; ++i) {
    char bytes[kMaxAnswerBytes];
    const ssize_t count = recv(fd_.Get(), bytes, sizeof(bytes), MSG_DONTWAIT);
    if (count == -1) return errno;
    std::string_view body;
    error = DecodeNetlinkAnswer({bytes, static_cast<size_t>(count)}, sequence_,
                                answer_type, &body);
    if (error == 0) answer->assign(body);
  }
  return error;
}

void NetlinkSocket::GiveUp(int error) {
  is_given_up_ = true;
  LOGI("[S] No %s over netlink: %s", name_, strerror(error));
}

}  // namespace vantrel
