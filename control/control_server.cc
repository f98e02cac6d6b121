#include "control/control_server.h"

#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <sstream>
#include <string>

#include "common/log.h"
#include "common/log_texts.h"
#include "control/control_packets.h"

namespace vantrel {
namespace {

constexpr size_t kMaxCommandBytes = 65535;

// Every piece between newlines is logged, so a text that ends with a newline
// gives one empty line at its end. Kept for compatibility.
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
    : ServerSocket("[C]"), reactor_(reactor), link_(link), status_(status) {}

ControlServer::~ControlServer() {
  reactor_.Unregister(*this, Reactor::kRead);
  reactor_.Unregister(*this, Reactor::kWrite);
}

uint16_t ControlServer::Listen() {
  if (!Open(SOCK_DGRAM) || !TurnOn(SOL_SOCKET, SO_REUSEADDR, "SO_REUSEADDR") ||
      !Bind(INADDR_LOOPBACK, kControlPort)) {
    return 0;
  }
  reactor_.Register(*this, Reactor::kRead);
  return kControlPort;
}

void ControlServer::OnReadReady() {
  for (int reads = 0; reads < Reactor::kMaxReads; ++reads) {
    char buffer[kMaxCommandBytes] = {};
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
      LOGD(VANTREL_TEXT_STOP_RECEIVED);
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
  LOGD(VANTREL_TEXT_DUMP_BEGIN);
  LogLines(state.str());
  LOGD(VANTREL_TEXT_DUMP_END);
}

void ControlServer::ReportTransferStats() {
  MessageUidTransferStatsInfo stats;
  link_.GetTransferStats(&stats);
  status_.OnTransferStatsResult(&stats);
}

}  // namespace vantrel
