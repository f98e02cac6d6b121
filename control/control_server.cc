#include "control/control_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <sstream>
#include <string>

#include "common/log.h"
#include "control/control_packets.h"

namespace vantrel {
namespace {

constexpr size_t kMaxDatagramBytes = 65535;

// A text that ends with a newline gives one empty line at its end, on purpose:
// every piece between newlines is logged.
void LogLines(const std::string& text) {
  size_t start = 0;
  while (true) {
    const size_t end = text.find('\n', start);
    LOGD("%s", text.substr(start, end - start).c_str());
    if (end == std::string::npos) return;
    start = end + 1;
  }
}

}  // namespace

ControlServer::ControlServer(Reactor& reactor, ProxySocket& link,
                             StatusSocket& status)
    : reactor_(reactor), link_(link), status_(status) {}

ControlServer::~ControlServer() {
  reactor_.Unregister(*this, Reactor::kRead);
  reactor_.Unregister(*this, Reactor::kWrite);
}

uint16_t ControlServer::Listen() {
  SetFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP));
  if (GetFd() == -1) {
    LOGE("[C] Error creating UDP socket: %s", strerror(errno));
    return 0;
  }
  const int on = 1;
  if (setsockopt(GetFd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) == -1) {
    LOGE("[C] Unable to set SO_REUSEADDR: %s", strerror(errno));
    return 0;
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(kControlPort);
  if (bind(GetFd(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) ==
      -1) {
    LOGE("[C] Error binding server socket: %s", strerror(errno));
    return 0;
  }
  reactor_.Register(*this, Reactor::kRead);
  return kControlPort;
}

void ControlServer::OnReadReady() {
  for (int reads = 0; reads < Reactor::kMaxReads; ++reads) {
    char buffer[kMaxDatagramBytes] = {};
    sockaddr_in sender;  // received and not used: the port never answers
    socklen_t sender_length = sizeof(sender);
    const ssize_t count =
        recvfrom(GetFd(), buffer, sizeof(buffer), 0,
                 reinterpret_cast<sockaddr*>(&sender), &sender_length);
    if (count == -1) {
      if (errno == EINTR) continue;
      if (errno != EAGAIN) {
        LOGW("[C] Error reading from socket: %s", strerror(errno));
      }
      return;
    }
    ProcessMessage(buffer, static_cast<size_t>(count));
  }
}

void ControlServer::ProcessMessage(const char* data, size_t length) {
  if (length == 0) return;
  const uint8_t type = GetU8(data);
  const bool has_argument = length >= kControlArgumentPacketBytes;
  switch (type) {
    case TYPE_STOP:
      LOGD("[C] Received STOP message.");
      reactor_.Stop();
      return;
    case TYPE_DUMP:
      LogDump();
      return;
    case TYPE_PING:
      link_.Ping();
      return;
    case TYPE_PULL:
      if (!has_argument) {
        LOGE("[C] Invalid packet length for TYPE_PULL: %zu", length);
        return;
      }
      link_.Pull(DecodeControlArgument(data));
      return;
    case TYPE_PUSH:
      if (!has_argument) {
        LOGE("[C] Invalid packet length for TYPE_PUSH: %zu", length);
        return;
      }
      link_.Push(DecodeControlArgument(data));
      return;
    case TYPE_TRANSFER_STATS:
      ReportTransferStats();
      return;
    default:
      LOGW("[C] Unknown packet type %d (len = %zu)", type, length);
      return;
  }
}

void ControlServer::LogDump() {
  std::stringstream state;
  link_.Dump(state);
  LOGD("----------- VANTREL DUMP -----------");
  LogLines(state.str());
  LOGD("-------------------------------------");
}

void ControlServer::ReportTransferStats() {
  MessageUidTransferStatsInfo stats;
  link_.GetTransferStats(&stats);
  status_.OnTransferStatsResult(&stats);
}

}  // namespace vantrel
