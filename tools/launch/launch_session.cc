#include "tools/launch/launch_session.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>

#include "support/system_failure.h"
#include "tools/route_look.h"

// The constructor starts the daemon, with the link itself (--direct) or with
// one end of a socket pair, of which the other end is relayed to the link. Then
// Run() waits for whatever comes: SIGCHLD (the daemon has ended,
// HandleSignal()), another signal (passed on), bytes (two RelayDirections), a
// record of the daemon (HandleStatus()), the end of the link (EndLink()), a
// timer.
//
// A session ends when the daemon has ended and what it left is delivered, or
// kGrace later. Whatever begins the end starts the timer that kills the daemon.

namespace vantrel {
namespace {

// How long the last bytes to the companion and the last records may take once
// the daemon has ended. A child of the daemon's may keep the channel open, and
// a companion may not read any more.
constexpr std::chrono::seconds kGrace{2};

// How long the daemon may take to end once it has been told to: seven commands
// of a slow packet-filter tool, and the second that it waits for its reader.
constexpr std::chrono::seconds kDaemonEndTimeout{15};

// A daemon that takes longer to start waits for its link, or for the
// packet-filter tool: somebody may hold the lock on the tables.
constexpr std::chrono::seconds kSlowStart{10};

// A companion that speaks the daemon's protocol answers the handshake at once.
// Protocol 1 has none.
constexpr std::chrono::seconds kSilenceTimeout{8};

// Between two looks at the status channel: a companion can have the daemon
// report without end.
constexpr std::chrono::milliseconds kStatusPause{20};

// What a shaped link over TCP holds before it is let in: the kernel's smallest.
constexpr int kShapedReceiveBufferBytes = 2 * 1024;

void MakeBlocking(int fd) {
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
}

}  // namespace

LaunchSession::LaunchSession(const launch_options_t& options,
                             connected_link_t link, EventLoop& loop,
                             LaunchReporter& reporter, PcapngWriter* capture,
                             std::function<void()> on_start)
    : options_(options),
      loop_(loop),
      reporter_(reporter),
      capture_(capture),
      on_start_(std::move(on_start)),
      status_timer_(loop.GetContext(), [this] { status_->WaitReadable(); }),
      grace_timer_(loop.GetContext(), [this] { is_grace_over_ = true; }),
      kill_timer_(loop.GetContext(), [this] { KillDaemon(); }),
      slow_start_timer_(loop.GetContext(), [this] { NoteSlowStart(); }),
      silence_timer_(loop.GetContext(), [this] { NoteSilence(); }),
      stats_timer_(loop.GetContext(), [this] { AskForStats(); }),
      opening_(std::stoi(options.protocol), LinkOpening::Sender::kCompanion) {
  StartDaemon(std::move(link));
}

LaunchSession::~LaunchSession() { loop_.SetSignalHandler({}); }

void LaunchSession::StartDaemon(connected_link_t link) {
  int channel[2];
  if (pipe2(channel, O_CLOEXEC) != 0) throw SystemFailure("no pipe");
  DaemonProcess::start_t start;
  start.status.Reset(channel[1]);
  status_.emplace(loop_.GetContext(), UniqueFd(channel[0]),
                  [this] { HandleStatus(); });
  start.program = options_.daemon;
  start.protocol = options_.protocol;
  if (options_.is_direct) {
    MakeBlocking(link.fd.Get());
    link_watch_.emplace(loop_.GetContext(), link.fd.Get(), [this](int error) {
      EndLink(error);
      daemon_->Signal(SIGTERM);
    });
    start.link = std::move(link.fd);
    // It would go on without us, in the way of the next one. With the relay it
    // ends in order, because its link ends with us.
    start.is_ended_with_us = true;
  } else {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
      throw SystemFailure("no socket pair");
    }
    start.link.Reset(pair[1]);
    StartRelay(std::move(link), UniqueFd(pair[0]), Duplicate(pair[1]));
  }
  daemon_.emplace(std::move(start));
  loop_.SetSignalHandler([this](int signal) { HandleSignal(signal); });
  status_->WaitReadable();
  slow_start_timer_.WaitFor(kSlowStart);
}

void LaunchSession::StartRelay(connected_link_t link, UniqueFd near_end,
                               UniqueFd far_end) {
  const std::string header = EncodeConnectionHeader(link.header);
  if (write(near_end.Get(), header.data(), header.size()) !=
      static_cast<ssize_t>(header.size())) {
    throw SystemFailure("cannot write the connection header");
  }
  if (options_.shape.bits_per_second > 0) {
    setsockopt(link.fd.Get(), SOL_SOCKET, SO_RCVBUF, &kShapedReceiveBufferBytes,
               sizeof(kShapedReceiveBufferBytes));
  }
  link_.emplace(
      loop_.GetContext(), std::move(link.fd),
      [this] { inbound_->OnReadable(); }, [this] { outbound_->OnWritable(); });
  near_end_.emplace(
      loop_.GetContext(), std::move(near_end),
      [this] { outbound_->OnReadable(); }, [this] { inbound_->OnWritable(); });
  RelayDirection::options_t in;
  RelayDirection::options_t out;
  in.shape = out.shape = options_.shape;
  in.on_read = [this](std::string_view bytes) { LookAtOpening(bytes); };
  in.on_end = [this] { HandleInboundEnd(); };
  out.on_end = [this] { HandleOutboundEnd(); };
  if (capture_ != nullptr) {
    capture_->BeginLink("protocol " + options_.protocol + " over " + link.text);
    // Both at the link's own side of the relay.
    in.on_read = [this, tap = MakeTap(PcapngWriter::kFromCompanion)](
                     std::string_view bytes) {
      tap(bytes);
      LookAtOpening(bytes);
    };
    out.on_written = MakeTap(PcapngWriter::kToCompanion);
  }
  inbound_.emplace(loop_.GetContext(), *link_, *near_end_, std::move(in));
  outbound_.emplace(loop_.GetContext(), *near_end_, *link_, std::move(out),
                    std::move(far_end));
}

RelayDirection::Tap LaunchSession::MakeTap(
    PcapngWriter::Direction direction) const {
  return [capture = capture_, direction](std::string_view bytes) {
    capture->WriteBytes(direction, std::string(bytes),
                        std::chrono::system_clock::now());
  };
}

LaunchSession::end_t LaunchSession::Run() {
  if (inbound_) {
    inbound_->Start();
    outbound_->Start();
  }
  while (!IsOver()) {
    loop_.GetContext().run_one();
    CountLinkBytes();
  }
  if (status_) EndStatus();
  end_.wait_status = daemon_->GetWaitStatus();
  end_.uptime = GetUptime();
  return end_;
}

bool LaunchSession::IsOver() const {
  if (daemon_->IsRunning()) return false;
  const bool is_flushed = !outbound_ || outbound_->IsOver();
  return (!status_ && is_flushed) || is_grace_over_;
}

SteadyTime::duration LaunchSession::GetUptime() const {
  if (!started_) return {};
  const SteadyTime end = link_end_      ? *link_end_
                         : last_report_ ? *last_report_
                                        : GetSteadyTime();
  return end - *started_;
}

void LaunchSession::HandleSignal(int signal) {
  if (signal != SIGCHLD) {
    end_.is_stop_wanted = true;
    reporter_.Stopping();
    daemon_->Signal(signal);
    if (!std::exchange(is_ending_, true)) {
      kill_timer_.WaitFor(kDaemonEndTimeout);
    }
    return;
  }
  if (!daemon_->IsRunning() || !daemon_->Reap()) return;
  if (outbound_) outbound_->CloseFeeder();
  link_watch_.reset();
  for (Timer* timer :
       {&kill_timer_, &slow_start_timer_, &silence_timer_, &stats_timer_}) {
    timer->Cancel();
  }
  grace_timer_.WaitFor(kGrace);
}

void LaunchSession::HandleStatus() {
  char bytes[4096];
  const ssize_t count = read(status_->GetFd(), bytes, sizeof(bytes));
  if (count <= 0 && !(count < 0 && errno == EINTR)) return EndStatus();
  if (is_ending_) {
    status_->WaitReadable();
  } else {
    status_timer_.WaitFor(kStatusPause);
  }
  if (count < 0) return;
  status_reader_.Append(bytes, static_cast<size_t>(count));
  const bool was_well = status_reader_.GetProblem().empty();
  status_record_t record;
  while (status_reader_.Next(&record)) HandleRecord(record);
  if (was_well && !status_reader_.GetProblem().empty()) {
    reporter_.Say("the status channel brought " + status_reader_.GetProblem() +
                  "; the rest is ignored");
  }
}

void LaunchSession::HandleRecord(const status_record_t& record) {
  reporter_.Record(record);
  if (options_.is_direct && record.kind == status_record_t::Kind::kExitCode &&
      record.exit_code == kConnectFailed) {
    reporter_.Say(
        "with --direct the companion has to send the connection header; was it "
        "started with --header?");
  }
  if (record.kind == status_record_t::Kind::kTransferStats) {
    last_report_ = GetSteadyTime();
  }
  if (record.kind != status_record_t::Kind::kStarted) return;
  started_ = GetSteadyTime();
  slow_start_timer_.Cancel();
  on_start_();
  LookAtRules();
  LookAtRoute();
  if (inbound_ && options_.protocol != "1") {
    silence_timer_.WaitFor(kSilenceTimeout);
  }
  if (options_.stats_every_seconds > 0) {
    stats_timer_.WaitFor(std::chrono::seconds(options_.stats_every_seconds));
  }
}

void LaunchSession::EndStatus() {
  const std::string cut = status_reader_.DescribeCutRecord();
  if (!cut.empty()) {
    reporter_.Say("the status channel ended in the middle of a " + cut);
  }
  status_.reset();
}

void LaunchSession::LookAtRules() {
  try {
    rules_look_.emplace(loop_.GetContext(), [this](const std::string& text) {
      // Of a daemon that is ending some rules are gone already.
      if (!is_ending_ && daemon_->IsRunning()) reporter_.Say(text);
    });
  } catch (const std::exception& e) {
    // The daemon runs, and there is nobody else to end it in order.
    reporter_.Say(std::string("warning: cannot look at the rules: ") +
                  e.what());
  }
}

void LaunchSession::LookAtRoute() {
  if (!HasOurNetwork(daemon_->GetPid())) return;
  const route_fault_t fault = FindFaultOfRoute();
  if (fault.text.empty()) return;
  reporter_.Say(
      "warning: " + fault.text +
      (fault.command.empty() ? "" : "; what helps: " + fault.command));
}

void LaunchSession::KillDaemon() {
  reporter_.Say("the daemon has not ended within " +
                std::to_string(kDaemonEndTimeout.count()) + " s and is killed");
  daemon_->Kill();
}

void LaunchSession::NoteSlowStart() {
  reporter_.Say(
      "warning: the daemon has not started yet; does the packet-filter tool "
      "hang, or wait for its lock?");
}

void LaunchSession::NoteSilence() {
  if (inbound_->GetMovedByteCount() == 0) {
    reporter_.Say(
        "warning: the companion has not said anything yet; does it speak "
        "protocol " +
        options_.protocol + ", without --header?");
    return;
  }
  const std::string fault = opening_.GetFaultOfSilence();
  if (!fault.empty()) reporter_.Say("warning: " + fault);
}

void LaunchSession::LookAtOpening(std::string_view bytes) {
  const bool was_well = opening_.GetFault().empty();
  opening_.Append(bytes);
  if (was_well && !opening_.GetFault().empty()) {
    reporter_.Say("warning: " + opening_.GetFault());
  }
}

void LaunchSession::AskForStats() {
  // It sends its last ones anyway, and then nobody listens.
  if (is_ending_) return;
  try {
    if (!control_port_) control_port_.emplace();
    control_port_->Send(EncodeControlPacket(TYPE_TRANSFER_STATS));
    // On the loopback a refusal is there before the call returns.
    if (control_port_->IsRefused()) {
      reporter_.Say(
          "the control port does not listen; statistics come only when the "
          "daemon ends");
      return;
    }
  } catch (const std::exception& e) {
    reporter_.Say(e.what());
    return;
  }
  stats_timer_.WaitFor(std::chrono::seconds(options_.stats_every_seconds));
}

void LaunchSession::HandleInboundEnd() {
  if (inbound_->GetState() == RelayDirection::State::kEnding) {
    EndLink(inbound_->GetReadError());
  }
}

void LaunchSession::HandleOutboundEnd() {
  if (outbound_->GetState() != RelayDirection::State::kBroken) return;
  // Nothing would tell the daemon otherwise: only this direction failed.
  shutdown(near_end_->GetFd(), SHUT_RDWR);
  EndLink(outbound_->GetWriteError());
}

void LaunchSession::EndLink(int error) {
  if (link_end_ || !daemon_->IsRunning()) return;
  link_end_ = GetSteadyTime();
  if (!std::exchange(is_ending_, true)) {
    kill_timer_.WaitFor(kDaemonEndTimeout);
  }
  // A stop ends the link, too, and so does the daemon when it ends.
  const bool is_ordered =
      end_.is_stop_wanted ||
      (outbound_ && outbound_->GetState() == RelayDirection::State::kEnded);
  if (is_ordered) return;
  // A companion that hears another protocol says nothing and goes.
  const bool is_unanswered = inbound_ && inbound_->GetMovedByteCount() == 0 &&
                             outbound_->GetMovedByteCount() > 0;
  reporter_.Say(std::string("the link ended") +
                (error != 0 ? std::string(": ") + strerror(error) : "") +
                (is_unanswered ? "; does the companion speak protocol " +
                                     options_.protocol + "?"
                               : ""));
}

void LaunchSession::CountLinkBytes() {
  if (!inbound_) return;
  const uint64_t in = inbound_->GetMovedByteCount();
  const uint64_t out = outbound_->GetMovedByteCount();
  reporter_.AddLinkBytes(in - std::exchange(counted_inbound_, in),
                         out - std::exchange(counted_outbound_, out));
}

}  // namespace vantrel
