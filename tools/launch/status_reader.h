#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "control/status_records.h"
#include "proto/src/transfer_stats.pb.h"

namespace vantrel {

// One thing that the daemon reported. Only the field of its kind is set.
struct status_record_t {
  enum class Kind { kStarted, kExitCode, kNetworkState, kTransferStats };

  Kind kind = Kind::kStarted;
  int32_t exit_code = 0;
  network_state_t network;
  android::corvane::protos::MessageUidTransferStatsInfo stats;
};

// Takes the bytes of one status channel in pieces of any size and gives its
// records. The channel has no marks between records: behind one that makes no
// sense nothing can be read any more, and the rest is ignored.
class StatusReader {
 public:
  void Append(const char* data, size_t length) { bytes_.append(data, length); }

  // False when no whole record is there.
  [[nodiscard]] bool Next(status_record_t* record);

  // Why reading ended early; empty while all is well.
  const std::string& GetProblem() const { return problem_; }

  // To be asked once the channel has ended: in the middle of which record it
  // did; empty when it ended between two.
  std::string DescribeCutRecord() const;

 private:
  bool ReadWord(status_record_t* record);
  bool ReadNetworkState(status_record_t* record);
  bool ReadTransferStats(status_record_t* record);
  // The length of the record in front as far as its bytes tell.
  size_t GetRecordBytes() const;
  bool Fail(const std::string& problem);

  std::string bytes_;      // not taken yet
  bool has_word_ = false;  // the first record was read
  bool is_over_ = false;   // no record can follow
  std::string problem_;
};

}  // namespace vantrel
