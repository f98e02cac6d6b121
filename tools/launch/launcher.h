#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include "tools/launch/launch_options.h"
#include "tools/launch/launch_reporter.h"
#include "tools/launch/launch_session.h"
#include "tools/launch/pcapng_writer.h"

namespace vantrel {

// Connects the link, runs the daemon over it and, if asked to, does so again
// and again. One for a process: takes over its signals.
class Launcher {
 public:
  // |options| outlives this. Throws std::system_error.
  explicit Launcher(const launch_options_t& options);

  // The exit status for the process: the daemon's own, 128 and the signal
  // that ended it, or 1 when it could not be started.
  int Run();

 private:
  // What one attempt came to. Without a session the daemon never ran.
  struct attempt_t {
    int exit_status = 1;
    bool has_started = false;
    bool is_final = false;  // another attempt is not wanted or cannot help
  };
  attempt_t Attempt();
  attempt_t RunSession(connected_link_t link);
  // False when a signal came first, which is then |exit_status|.
  bool Pause(std::chrono::seconds duration, int* exit_status);
  // The signal that waits to be handled, or 0.
  int TakeSignal();

  const launch_options_t& options_;
  LaunchReporter reporter_;
  UniqueFd signal_fd_;
  std::unique_ptr<PcapngWriter> capture_;  // null: none
};

}  // namespace vantrel
