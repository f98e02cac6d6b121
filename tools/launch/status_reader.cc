#include "tools/launch/status_reader.h"

namespace vantrel {

bool StatusReader::Next(status_record_t* record) {
  if (is_over_) {
    bytes_.clear();
    return false;
  }
  if (!has_word_) return ReadWord(record);
  if (bytes_.empty()) return false;
  switch (GetU8(bytes_.data())) {
    case STATUS_NETWORK_STATE:
      return ReadNetworkState(record);
    case STATUS_TRANSFER_STATS:
      return ReadTransferStats(record);
    default:
      return Fail("a status record of the unknown type " +
                  std::to_string(GetU8(bytes_.data())));
  }
}

bool StatusReader::ReadWord(status_record_t* record) {
  if (bytes_.size() < kStatusWordBytes) return false;
  record->exit_code = DecodeStatusWord(bytes_.data());
  bytes_.erase(0, kStatusWordBytes);
  has_word_ = true;
  is_over_ = record->exit_code != kStartSucceeded;
  record->kind = is_over_ ? status_record_t::Kind::kExitCode
                          : status_record_t::Kind::kStarted;
  return true;
}

bool StatusReader::ReadNetworkState(status_record_t* record) {
  if (bytes_.size() < kNetworkStateRecordBytes) return false;
  record->kind = status_record_t::Kind::kNetworkState;
  record->network = DecodeNetworkState(bytes_.data());
  bytes_.erase(0, kNetworkStateRecordBytes);
  return true;
}

bool StatusReader::ReadTransferStats(status_record_t* record) {
  const size_t size = GetRecordBytes();
  if (bytes_.size() < size) return false;
  record->kind = status_record_t::Kind::kTransferStats;
  if (!record->stats.ParseFromArray(
          bytes_.data() + kTransferStatsHeaderBytes,
          static_cast<int>(size - kTransferStatsHeaderBytes))) {
    return Fail("a transfer statistics record that cannot be parsed");
  }
  bytes_.erase(0, size);
  return true;
}

size_t StatusReader::GetRecordBytes() const {
  if (!has_word_) return kStatusWordBytes;
  if (GetU8(bytes_.data()) == STATUS_NETWORK_STATE) {
    return kNetworkStateRecordBytes;
  }
  if (bytes_.size() < kTransferStatsHeaderBytes) {
    return kTransferStatsHeaderBytes;
  }
  return kTransferStatsHeaderBytes + DecodeTransferStatsHeader(bytes_.data());
}

std::string StatusReader::DescribeCutRecord() const {
  if (bytes_.empty() || is_over_) return "";
  const char* const name = !has_word_ ? "first record"
                           : GetU8(bytes_.data()) == STATUS_NETWORK_STATE
                               ? "network state record"
                               : "transfer statistics record";
  return std::string(name) + " (" + std::to_string(bytes_.size()) + " of " +
         std::to_string(GetRecordBytes()) + " bytes)";
}

bool StatusReader::Fail(const std::string& problem) {
  problem_ = problem;
  is_over_ = true;
  bytes_.clear();
  return false;
}

}  // namespace vantrel
