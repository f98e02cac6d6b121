#pragma once

#include <stdint.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include "support/metrics_file.h"
#include "support/paced_task.h"
#include "support/service_manager.h"
#include "support/status_server.h"
#include "support/steady_time.h"
#include "tools/launch/event_loop.h"
#include "tools/launch/launch_options.h"
#include "tools/launch/line_writer.h"
#include "tools/launch/status_reader.h"
#include "tools/launch_state.h"
#include "tools/package_names.h"

namespace vantrel {

// Tells everybody who listens what happens: records on standard output, talk
// on standard error, totals in the metrics file, progress to the service
// manager, all of it to the readers of the status socket. None of them is ever
// waited for.
class LaunchReporter {
 public:
  // Both outlive this. Throws std::system_error when there is to be a status
  // socket and cannot be.
  LaunchReporter(const launch_options_t& options, EventLoop& loop);

  void Connecting();
  // |link| is where; |name|, if not empty, whose machine was found there.
  void Connected(const std::string& link, const std::string& name);
  // An attempt has ended without a daemon.
  void Failed(const std::string& reason);
  void Record(const status_record_t& record);
  void Stopping();
  void DaemonEnded(int wait_status);
  // Before connecting again.
  void Waiting(std::chrono::seconds time);
  // What the relay has moved since the last call.
  void AddLinkBytes(uint64_t received, uint64_t sent);

  // One line for a person.
  void Say(const std::string& message);

  // At the end: gives readers a last moment, and says what they did not read.
  void Finish();
  // How long that is for each of them.
  static constexpr int kLastMomentMs = 200;

 private:
  // |status| is for the service manager.
  void Enter(launch_state_t::Phase phase, const std::string& status);
  void TellNetwork();
  // To be called when something of the totals has changed.
  void UpdateMetrics();
  std::string GetStateLine();
  uint64_t GetTimeMs() const;
  // A record, in both of its forms.
  void Print(const std::string& text, const std::string& json);
  bool WantsJson() const;

  const launch_options_t& options_;  // not owned
  LineWriter records_;
  LineWriter talk_;
  PackageList packages_;
  launch_state_t state_;
  const SteadyTime began_ = GetSteadyTime();
  uint64_t started_ms_ = 0;   // when the daemon did, if it runs
  std::string network_;       // the record of the run's last one, in words
  std::string last_failure_;  // why the last attempt ended
  bool is_ready_told_ = false;
  ServiceManager service_manager_;
  PacedTask network_change_;  // a companion can report one after the other
  std::optional<MetricsFile> metrics_;
  std::optional<StatusServer> status_server_;
};

}  // namespace vantrel
