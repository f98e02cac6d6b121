#pragma once

#include <functional>
#include <optional>
#include <string_view>

#include "support/descriptor.h"
#include "support/link_opening.h"
#include "support/steady_time.h"
#include "support/timer.h"
#include "tools/control_port.h"
#include "tools/launch/daemon_process.h"
#include "tools/launch/event_loop.h"
#include "tools/launch/launch_options.h"
#include "tools/launch/launch_reporter.h"
#include "tools/launch/link_connector.h"
#include "tools/launch/link_end_watch.h"
#include "tools/launch/pcapng_writer.h"
#include "tools/launch/relay_direction.h"
#include "tools/launch/rules_look.h"
#include "tools/launch/status_reader.h"

namespace vantrel {

// One run of the daemon over one connected link: starts it, relays the link,
// reads its status channel, passes signals on, until it has ended.
class LaunchSession {
 public:
  struct end_t {
    int wait_status = 0;
    // From the daemon's start, if it came so far, to the first sign of its end:
    // the end of the link, its last record, or its own.
    SteadyTime::duration uptime{0};
    bool is_stop_wanted = false;  // a signal was passed on
  };

  // |capture| may be null; |on_start| is called when the daemon has reported
  // its start. All references outlive this. Throws std::system_error
  // when the daemon cannot be started.
  LaunchSession(const launch_options_t& options, connected_link_t link,
                EventLoop& loop, LaunchReporter& reporter,
                PcapngWriter* capture, std::function<void()> on_start);
  ~LaunchSession();
  LaunchSession(const LaunchSession&) = delete;
  LaunchSession& operator=(const LaunchSession&) = delete;

  end_t Run();

 private:
  void StartDaemon(connected_link_t link);
  // |far_end| is a duplicate of the daemon's end.
  void StartRelay(connected_link_t link, UniqueFd near_end, UniqueFd far_end);
  RelayDirection::Tap MakeTap(PcapngWriter::Direction direction) const;
  bool IsOver() const;
  SteadyTime::duration GetUptime() const;

  void HandleSignal(int signal);
  void HandleStatus();
  void HandleRecord(const status_record_t& record);
  void EndStatus();
  void LookAtRules();
  void LookAtRoute();
  void AskForStats();
  void KillDaemon();
  void NoteSlowStart();
  void NoteSilence();
  // Looks at what the companion sends first.
  void LookAtOpening(std::string_view bytes);
  void HandleInboundEnd();
  void HandleOutboundEnd();
  void EndLink(int error);
  void CountLinkBytes();

  const launch_options_t& options_;
  EventLoop& loop_;
  LaunchReporter& reporter_;
  PcapngWriter* const capture_;
  const std::function<void()> on_start_;

  std::optional<Descriptor> status_;  // none once the channel has ended
  Timer status_timer_;                // while it rests
  StatusReader status_reader_;
  std::optional<DaemonProcess> daemon_;  // empty only while starting
  std::optional<RulesLook> rules_look_;  // after the start

  Timer grace_timer_;  // from the daemon's end
  Timer kill_timer_;   // from when the daemon is to end
  Timer slow_start_timer_;
  Timer silence_timer_;
  Timer stats_timer_;
  std::optional<SteadyTime> started_;  // when the daemon reported it
  std::optional<SteadyTime> link_end_;
  std::optional<SteadyTime> last_report_;
  bool is_grace_over_ = false;
  bool is_ending_ = false;                   // the daemon is to end
  std::optional<ControlPort> control_port_;  // made when first needed
  end_t end_;

  std::optional<LinkEndWatch> link_watch_;  // when the daemon has the link

  // All empty when the daemon has the link itself.
  std::optional<Descriptor> link_;
  // Of the socket pair between us and the daemon.
  std::optional<Descriptor> near_end_;
  std::optional<RelayDirection> inbound_;   // companion to daemon
  std::optional<RelayDirection> outbound_;  // daemon to companion
  LinkOpening opening_;                     // of the companion
  uint64_t counted_inbound_ = 0;
  uint64_t counted_outbound_ = 0;
};

}  // namespace vantrel
