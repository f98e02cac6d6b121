#pragma once

#include <nlohmann/json.hpp>

#include "support/json_number.h"
#include "support/record_fields.h"
#include "support/state_record.h"

namespace vantrel {

inline nlohmann::ordered_json TrafficToJson(const traffic_t& traffic) {
  return {{record_fields::kRxBytes, traffic.rx_bytes},
          {record_fields::kTxBytes, traffic.tx_bytes}};
}

// Throws json::exception when a member is missing, and std::runtime_error when
// one is no number of bytes.
inline traffic_t ParseTraffic(const nlohmann::ordered_json& fields) {
  traffic_t traffic;
  ReadInteger(fields.at(record_fields::kRxBytes), &traffic.rx_bytes);
  ReadInteger(fields.at(record_fields::kTxBytes), &traffic.tx_bytes);
  return traffic;
}

}  // namespace vantrel
