// What the states on the status sockets of launcher and companion have in
// common.
#pragma once

#include <stdint.h>

namespace vantrel {

// How often each reader gets the state, also while nothing changes.
constexpr int kStateIntervalMs = 1000;

// From the device's point of view, on both ends of the link.
struct traffic_t {
  uint64_t rx_bytes = 0;  // from the companion
  uint64_t tx_bytes = 0;  // to the companion
};

}  // namespace vantrel
