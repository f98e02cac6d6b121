// The records on the status channel, from the daemon to its launching process.
// All integers are little-endian. The first record is a bare word: 0 once the
// daemon runs, or the exit code of a start that failed. After a 0 come typed
// records, each with its type in the first byte.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "common/byte_order.h"

namespace vantrel {

// How a start ends that does not come to "started": the first record, and at
// the same time the process's exit status.
enum ExitCode : int32_t {
  kStartSucceeded = 0,  // as a record only
  kConnectFailed = 1,
  kControlServerFailed = 2,
  kTcpServerFailed = 3,
  kUdpServerFailed = 4,
  kBadArgumentCount = 20,
  kBadVersion = 21,
};

enum StatusRecordType : uint8_t {
  STATUS_NETWORK_STATE = 1,   // 0: type, 1: network id i32, 5: metered 0 or 1
  STATUS_TRANSFER_STATS = 2,  // 0: type, 1: payload length u16, 3: payload,
                              // a MessageUidTransferStatsInfo
};

constexpr size_t kStatusWordBytes = 4;
constexpr size_t kNetworkStateRecordBytes = 6;
constexpr size_t kTransferStatsHeaderBytes = 3;
// A longer payload is never sent.
constexpr size_t kMaxTransferStatsBytes = 3583;

struct network_state_t {
  int32_t network_id = 0;
  bool is_metered = false;
};

inline std::string EncodeStatusWord(int32_t exit_code) {
  std::string out;
  PutLe32(&out, static_cast<uint32_t>(exit_code));
  return out;
}

inline int32_t DecodeStatusWord(const char* word) {
  return static_cast<int32_t>(GetLe32(word));
}

inline std::string EncodeNetworkState(const network_state_t& state) {
  std::string out;
  PutU8(&out, STATUS_NETWORK_STATE);
  PutLe32(&out, static_cast<uint32_t>(state.network_id));
  PutU8(&out, state.is_metered ? 1 : 0);
  return out;
}

// |record| points to kNetworkStateRecordBytes bytes.
inline network_state_t DecodeNetworkState(const char* record) {
  network_state_t state;
  state.network_id = static_cast<int32_t>(GetLe32(record + 1));
  state.is_metered = GetU8(record + 5) != 0;
  return state;
}

inline std::string EncodeTransferStatsHeader(uint16_t payload_bytes) {
  std::string out;
  PutU8(&out, STATUS_TRANSFER_STATS);
  PutLe16(&out, payload_bytes);
  return out;
}

// |header| points to kTransferStatsHeaderBytes bytes; the payload's length.
inline uint16_t DecodeTransferStatsHeader(const char* header) {
  return GetLe16(header + 1);
}

}  // namespace vantrel
