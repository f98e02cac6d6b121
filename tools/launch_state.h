// What a launcher tells about itself: the record on its status socket, which
// it writes and vantrelctl reads.
#pragma once

#include <stdint.h>

#include <map>
#include <optional>
#include <string>

#include "support/state_record.h"

namespace vantrel {

// Where the status socket stands in an installed system.
constexpr char kStatusSocket[] = "/run/vantrel.status";

struct launch_state_t {
  enum class Phase {
    kConnecting,  // until the daemon has reported its start
    kRunning,
    kStopping,  // a signal was passed on
    kWaiting,   // to connect again
    kEnded,
  };
  struct network_t {
    int32_t id = 0;
    bool is_metered = false;
  };
  struct application_t {
    std::string name;  // of its packages; empty: unknown
    traffic_t traffic;
  };

  Phase phase = Phase::kConnecting;
  std::string link;      // its address as given
  std::string protocol;  // as given
  // Of the launcher's clock, which never goes back: now, and when the daemon
  // last reported traffic by UID (0: not yet).
  uint64_t time_ms = 0;
  uint64_t stats_time_ms = 0;
  uint64_t uptime_ms = 0;            // of the daemon that runs; 0: none
  uint64_t starts = 0;               // how often a daemon has started
  std::optional<network_t> network;  // the companion's last one
  // Totals over all runs of the daemon. None for a link without a relay.
  std::optional<traffic_t> link_traffic;
  std::map<uint32_t, application_t> by_uid;
};

// The word for |phase| in the record.
const char* GetPhaseName(launch_state_t::Phase phase);

// One line without its newline.
std::string StateToJson(const launch_state_t& state);

// None when |line| is another record, also a companion's. Throws
// std::runtime_error when it is none at all.
std::optional<launch_state_t> ParseState(const std::string& line);

}  // namespace vantrel
