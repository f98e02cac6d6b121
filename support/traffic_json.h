#pragma once

#include <nlohmann/json.hpp>

#include "support/record_fields.h"
#include "support/state_record.h"

namespace vantrel {

inline nlohmann::ordered_json TrafficToJson(const traffic_t& traffic) {
  return {{record_fields::kRxBytes, traffic.rx_bytes},
          {record_fields::kTxBytes, traffic.tx_bytes}};
}

// Throws json::exception when a member is missing or no number.
inline traffic_t ParseTraffic(const nlohmann::ordered_json& fields) {
  return {fields.at(record_fields::kRxBytes).get<uint64_t>(),
          fields.at(record_fields::kTxBytes).get<uint64_t>()};
}

}  // namespace vantrel
