#pragma once

#include <optional>

#include "tools/control_port.h"
#include "tools/launch/daemon_process.h"
#include "tools/launch/launch_options.h"
#include "tools/launch/launch_reporter.h"
#include "tools/launch/link_connector.h"
#include "tools/launch/pcapng_writer.h"
#include "tools/launch/relay_direction.h"
#include "tools/launch/status_reader.h"
#include "tools/rules.h"

namespace vantrel {

// One run of the daemon over one connected link: starts it, relays the link,
// reads its status channel, passes signals on, until it has ended.
class LaunchSession {
 public:
  struct end_t {
    int wait_status = 0;
    bool has_started = false;     // the daemon reported its start
    bool is_stop_wanted = false;  // a signal was passed on
  };

  // |signal_fd| delivers SIGINT, SIGTERM and SIGCHLD. |capture| may be null;
  // all references outlive this. Throws std::system_error when the daemon
  // cannot be started.
  LaunchSession(const launch_options_t& options, connected_link_t link,
                int signal_fd, LaunchReporter& reporter, PcapngWriter* capture);

  end_t Run();

 private:
  using Handler = void (LaunchSession::*)(SteadyTime now);

  void StartDaemon(connected_link_t link);
  void StartRelay(connected_link_t link, UniqueFd near_end);
  RelayDirection::Tap MakeTap(PcapngWriter::Direction direction) const;

  bool IsOver(SteadyTime now) const;
  void WaitAndHandle();
  std::optional<SteadyTime> GetNextTime(SteadyTime now) const;

  void HandleSignal(SteadyTime now);
  void HandleStatus(SteadyTime now);
  void HandleRulesLook(SteadyTime now);
  void FlushReports(SteadyTime now);
  void ReadInbound(SteadyTime now);
  void WriteInbound(SteadyTime now);
  void ReadOutbound(SteadyTime now);
  void WriteOutbound(SteadyTime now);

  void HandleRecord(const status_record_t& record, SteadyTime now);
  void EndStatus();
  void HandleTime(SteadyTime now);
  void AskForStats(SteadyTime now);
  void KillDaemon();
  void NoteSilence();
  void EndLink(int error, SteadyTime now);
  void CountLinkBytes();

  const launch_options_t& options_;
  const int signal_fd_;
  LaunchReporter& reporter_;
  PcapngWriter* const capture_;

  UniqueFd status_;  // none once the channel has ended
  StatusReader status_reader_;
  std::optional<DaemonProcess> daemon_;      // empty only while starting
  std::optional<SteadyTime> grace_end_;      // set when the daemon has ended
  std::optional<ControlPort> control_port_;  // made when first needed
  std::optional<SteadyTime> next_stats_;
  std::optional<RulesTask> rules_look_;     // after the start
  std::optional<SteadyTime> kill_time_;     // set once the daemon is to end
  std::optional<SteadyTime> silence_time_;  // until the companion has spoken
  end_t end_;

  // All empty when the daemon has the link itself.
  UniqueFd link_;
  UniqueFd near_end_;  // of the socket pair whose other end the daemon has
  std::optional<RelayDirection> inbound_;   // companion to daemon
  std::optional<RelayDirection> outbound_;  // daemon to companion
  bool is_link_over_ = false;
  uint64_t counted_inbound_ = 0;
  uint64_t counted_outbound_ = 0;
};

}  // namespace vantrel
