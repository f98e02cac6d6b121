#include "control/status_socket.h"

#include <string>

#include "common/log.h"
#include "common/log_texts.h"
#include "control/status_records.h"

namespace vantrel {

void StatusSocket::StartupCompleted() {
  const std::string record = EncodeStatusWord(kStartSucceeded);
  Write(record.data(), record.size());
}

void StatusSocket::ActiveNetworkStateChanged(int network_id, bool is_metered) {
  const std::string record = EncodeNetworkState({network_id, is_metered});
  Write(record.data(), record.size());
}

void StatusSocket::OnTransferStatsResult(
    const MessageUidTransferStatsInfo* stats) {
  const size_t size = stats->ByteSizeLong();
  LOGD(VANTREL_TEXT_STATS_LENGTH "%zu", size);
  if (size > kMaxTransferStatsBytes) {
    LOGE("Transfer stats too large");
    return;
  }
  const std::string record =
      EncodeTransferStatsHeader(static_cast<uint16_t>(size)) +
      stats->SerializeAsString();
  Write(record.data(), record.size());
}

}  // namespace vantrel
