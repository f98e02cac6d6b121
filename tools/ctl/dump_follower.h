#pragma once

#include <optional>
#include <string>

#include "tools/control_port.h"
#include "tools/ctl/command_outcome.h"
#include "tools/ctl/link_dump.h"
#include "tools/ctl/log_follower.h"

namespace vantrel {

// Asks a daemon for its statistics and a dump, again and again, and finds the
// dumps in its log.
class DumpFollower {
 public:
  // |log| is the daemon's log file. Throws std::system_error.
  explicit DumpFollower(const std::string& log);

  // Asks once more. What is wrong, in words for a person, or nothing.
  std::string Ask();
  // Reads the log. The last dump that has become whole since the last call.
  std::optional<link_dump_t> Read();
  // Another daemon runs now: what is known of the one before means nothing.
  void Forget();

  const StreamOwners& GetOwners() const { return owners_; }

 private:
  ControlPort port_;
  LogFollower log_;
  std::optional<CommandOutcome> outcome_;  // of the dump that is read
  std::optional<int> daemon_;              // its process; none: not known
  StreamOwners owners_;
};

}  // namespace vantrel
