#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "tools/launch_state.h"

namespace vantrel {

// The state of the daemon's link as its dump tells it.
struct link_dump_t {
  struct stream_t {
    uint32_t id = 0;
    std::string remote;          // its endpoint
    traffic_t traffic;           // rx: to the application
    uint64_t waiting_bytes = 0;  // for the application
  };

  // Of what waits for the link.
  uint64_t queued_bytes = 0;
  uint64_t queued_messages = 0;
  std::vector<stream_t> streams;
};

// |text| is a dump with its lines as they stand in the log. What is not known
// is passed over.
link_dump_t ParseDump(const std::string& text);

// Whose streams are, by their ids, from the lines with which the daemon's log
// notes each new one.
class StreamOwners {
 public:
  // Takes every message of the log.
  void Take(const std::string& message);
  void Clear() { owners_.clear(); }

  // The package's name, or the UID in words; empty for a stream that is older
  // than our knowledge.
  std::string Find(uint32_t id) const;

 private:
  // A daemon that runs for long has had more streams than are worth keeping.
  static constexpr size_t kMaxOwners = 4096;

  std::map<uint32_t, std::string> owners_;
};

}  // namespace vantrel
