#pragma once

#include "proto/src/transfer_stats.pb.h"
#include "reactor/socket.h"

namespace vantrel {

using ::android::corvane::protos::MessageUidTransferStatsInfo;

// The write-only channel to the process that launched the daemon; its records
// stand in control/status_records.h. Never registered with the reactor, and
// left blocking or not as it was handed over.
//
// Each record is one write whose result is not looked at: nothing could be done
// about it. A record that a full non-blocking channel cannot take is lost or
// cut; a full blocking one stalls the daemon until somebody reads.
class StatusSocket : public Socket {
 public:
  // Takes ownership of |fd|.
  explicit StatusSocket(int fd) : Socket(fd) {}

  void StartupCompleted();
  void ActiveNetworkStateChanged(int network_id, bool is_metered);
  // Logs an error and writes nothing when the report is larger than a record
  // may be.
  void OnTransferStatsResult(const MessageUidTransferStatsInfo* stats);
};

}  // namespace vantrel
