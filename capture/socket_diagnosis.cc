#include "capture/socket_diagnosis.h"

#include <arpa/inet.h>
#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>

namespace vantrel {
namespace {

// A kernel without the diagnosis of TCP says what one says that has no such
// socket, but looks for a module first.
constexpr int kMaxFruitless = 8;

void PutEnd(const HostAndPort& end, __be32* address, __be16* port) {
  const std::string bytes = end.host.ToNetworkBytes();
  memcpy(address, bytes.data(), sizeof(*address));
  *port = htons(end.port);
}

}  // namespace

std::string EncodeDiagnosisQuestion(const HostAndPort& local,
                                    const HostAndPort& remote) {
  inet_diag_req_v2 question = {};
  question.sdiag_family = AF_INET;
  question.sdiag_protocol = IPPROTO_TCP;
  question.idiag_states = UINT32_MAX;
  PutEnd(local, question.id.idiag_src, &question.id.idiag_sport);
  PutEnd(remote, question.id.idiag_dst, &question.id.idiag_dport);
  question.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  question.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  std::string bytes;
  PutRecord(&bytes, question);
  return bytes;
}

// Where there is no such connection the kernel may find a listener, which has
// no remote port.
bool DecodeDiagnosisAnswer(std::string_view answer, uint16_t port,
                           uint16_t remote_port, tcp_row_t* row) {
  inet_diag_msg found;
  if (!TakeRecord(&answer, &found) || ntohs(found.id.idiag_sport) != port ||
      ntohs(found.id.idiag_dport) != remote_port) {
    return false;
  }
  row->port = port;
  row->remote_port = remote_port;
  row->state = found.idiag_state;
  row->uid = found.idiag_uid;
  row->inode = found.idiag_inode;
  return true;
}

bool SocketDiagnosis::Find(const HostAndPort& local, const HostAndPort& remote,
                           tcp_row_t* row) {
  const bool is_ipv4 =
      local.host.GetFamily() == AF_INET && remote.host.GetFamily() == AF_INET;
  if (!is_ipv4) return false;
  std::string answer;
  const int error =
      socket_.Ask(SOCK_DIAG_BY_FAMILY, EncodeDiagnosisQuestion(local, remote),
                  SOCK_DIAG_BY_FAMILY, &answer);
  if (error == 0) has_found_ = true;
  if (error == ENOENT && !has_found_ && ++fruitless_ == kMaxFruitless) {
    socket_.GiveUp(error);
  }
  return error == 0 &&
         DecodeDiagnosisAnswer(answer, local.port, remote.port, row);
}

}  // namespace vantrel
