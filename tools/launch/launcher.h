#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tools/device_network.h"
#include "tools/launch/companion_finder.h"
#include "tools/launch/event_loop.h"
#include "tools/launch/launch_options.h"
#include "tools/launch/launch_reporter.h"
#include "tools/launch/launch_session.h"
#include "tools/launch/name_server_setting.h"
#include "tools/launch/pcapng_writer.h"
#include "tools/lock_file.h"
#include "tools/rules.h"

namespace vantrel {

// Connects the link, runs the daemon over it and, if asked to, does so again
// and again. One for a process: takes over its signals.
class Launcher {
 public:
  // |options| outlives this. Throws std::system_error, and DeviceInUse when a
  // daemon runs already.
  explicit Launcher(const launch_options_t& options);
  // Takes away what was made of the network.
  ~Launcher();
  Launcher(const Launcher&) = delete;
  Launcher& operator=(const Launcher&) = delete;

  // The exit status for the process: the daemon's own, 128 and the signal
  // that ended it, or 1 when it could not be started or rules may be left.
  int Run();

 private:
  // What one attempt came to. Without a session the daemon never ran.
  struct attempt_t {
    int exit_status = 1;
    bool has_worked = false;
    bool is_final = false;  // another attempt is not wanted or cannot help
  };
  attempt_t Attempt();
  // Another attempt would have the same choice.
  attempt_t GiveUp(const ChoiceNeeded& choice);
  attempt_t RunSession(connected_link_t link);
  // Removes the rules that the daemon has left. False when they may still
  // stand, which was then said.
  bool CleanUp();
  // As RulesTask::GetRules(); a signal leaves it only a short time more.
  std::vector<std::string> RunRules(RulesTask::Kind kind);
  // What is missing of the device's network; and what a launcher that was
  // killed has left in its resolver. Throws std::runtime_error.
  void MakeNetwork();
  void TakeNetworkAway();
  int End(int exit_status);

  const launch_options_t& options_;
  const LockFile lock_;
  EventLoop loop_;
  LaunchReporter reporter_;
  std::unique_ptr<PcapngWriter> capture_;  // null: none
  const DeviceNetwork network_{DeviceNetwork::Maker::kLauncher};
  bool has_network_ = false;  // it may have something of ours
  NameServerSetting name_server_;
};

}  // namespace vantrel
