// What a companion tells about itself: the record on its status socket, which
// it writes and vantrelctl reads.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "support/state_record.h"

namespace vantrel {

struct companion_state_t {
  enum class Phase { kRunning, kStopping };

  struct stream_t {
    uint32_t id = 0;
    std::string remote;  // its endpoint
    traffic_t traffic;   // payload
    uint64_t age_ms = 0;
  };

  // One application of a device, since the device has connected.
  struct application_t {
    std::optional<uint32_t> uid;  // none: all whose owner is not known
    std::string name;             // as the device tells it; empty: unknown
    traffic_t traffic;            // payload of streams and datagrams
    uint64_t streams_opened = 0;
    uint64_t streams_open = 0;
    uint64_t oldest_stream_ms = 0;  // how long that is open; 0: none is
    uint64_t streams_denied = 0;
    uint64_t rx_datagrams = 0;  // to the device
    uint64_t tx_datagrams = 0;
    uint64_t dropped_datagrams = 0;
    std::vector<stream_t> streams;  // open ones, not all of many
  };

  // One link.
  struct device_t {
    enum class Phase { kConnecting, kRunning, kClosing };

    uint32_t id = 0;       // as in the log; each link has its own
    std::string link;      // who is at its other end
    std::string protocol;  // empty: not known yet
    Phase phase = Phase::kConnecting;
    uint64_t uptime_ms = 0;
    traffic_t link_traffic;      // all bytes of the link
    uint64_t pace = 0;           // towards the device, in bytes per second
    uint64_t waiting_bytes = 0;  // for the device
    std::vector<application_t> applications;
  };

  // Of what is counted here a state has not all.
  struct left_out_t {
    uint64_t devices = 0;
    uint64_t applications = 0;
    uint64_t streams = 0;
  };

  Phase phase = Phase::kRunning;
  // Of the companion's clock, which never goes back.
  uint64_t time_ms = 0;
  uint64_t uptime_ms = 0;
  uint64_t links = 0;  // how many there have been
  std::vector<device_t> devices;
  left_out_t left_out;
};

// The words in the record.
const char* GetPhaseName(companion_state_t::Phase phase);
const char* GetPhaseName(companion_state_t::device_t::Phase phase);

// One line without its newline.
std::string StateToJson(const companion_state_t& state);

// None when |line| is another record, also a launcher's. Throws
// std::runtime_error when it is none at all.
std::optional<companion_state_t> ParseCompanionState(const std::string& line);

}  // namespace vantrel
