#include "tools/launch/launch_session.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <utility>
#include <vector>

#include "tools/system_failure.h"

namespace vantrel {
namespace {

// How long the last bytes to the companion and the last records may take once
// the daemon has ended. A child of the daemon's may keep the channel open, and
// a companion may not read any more.
constexpr std::chrono::seconds kGrace{2};

// How long the daemon may take to end once it has been told to: seven commands
// of a slow packet-filter tool, and the second that it waits for its reader.
constexpr std::chrono::seconds kDaemonEndTimeout{15};

// A companion that speaks the daemon's protocol answers the handshake at once.
// Protocol 1 has none.
constexpr std::chrono::seconds kSilenceTimeout{8};

// On a slow link the queue in front of the relay would otherwise hold seconds
// of traffic, as no Bluetooth socket does.
constexpr int kShapedSendBufferBytes = 16 * 1024;

void SetBlocking(int fd, bool is_blocking) {
  const int flags = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, is_blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
}

timespec ToTimespec(SteadyTime::duration duration) {
  const auto ns = std::max<int64_t>(
      0,
      std::chrono::duration_cast<std::chrono::nanoseconds>(duration).count());
  timespec time;
  time.tv_sec = static_cast<time_t>(ns / 1000000000);
  time.tv_nsec = static_cast<long>(ns % 1000000000);
  return time;
}

}  // namespace

LaunchSession::LaunchSession(const launch_options_t& options,
                             connected_link_t link, int signal_fd,
                             LaunchReporter& reporter, PcapngWriter* capture)
    : options_(options),
      signal_fd_(signal_fd),
      reporter_(reporter),
      capture_(capture) {
  StartDaemon(std::move(link));
}

void LaunchSession::StartDaemon(connected_link_t link) {
  int channel[2];
  if (pipe2(channel, O_CLOEXEC) != 0) throw SystemFailure("no pipe");
  status_.Reset(channel[0]);
  DaemonProcess::start_t start;
  start.program = options_.daemon;
  start.protocol = options_.protocol;
  start.status.Reset(channel[1]);
  if (options_.is_direct) {
    SetBlocking(link.fd.Get(), true);
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
    if (options_.shape.IsNeeded()) {
      setsockopt(start.link.Get(), SOL_SOCKET, SO_SNDBUF,
                 &kShapedSendBufferBytes, sizeof(kShapedSendBufferBytes));
    }
    StartRelay(std::move(link), UniqueFd(pair[0]));
  }
  daemon_.emplace(std::move(start));
}

void LaunchSession::StartRelay(connected_link_t link, UniqueFd near_end) {
  link_ = std::move(link.fd);
  near_end_ = std::move(near_end);
  SetBlocking(near_end_.Get(), false);
  const std::string header = EncodeConnectionHeader(link.header);
  if (write(near_end_.Get(), header.data(), header.size()) !=
      static_cast<ssize_t>(header.size())) {
    throw SystemFailure("cannot write the connection header");
  }
  RelayDirection::options_t in{options_.shape, nullptr, nullptr};
  RelayDirection::options_t out{options_.shape, nullptr, nullptr};
  if (capture_ != nullptr) {
    capture_->BeginLink("protocol " + options_.protocol + " over " +
                        options_.link.text);
    // Both at the link's own side of the relay.
    in.on_read = MakeTap(PcapngWriter::kFromCompanion);
    out.on_written = MakeTap(PcapngWriter::kToCompanion);
  }
  inbound_.emplace(link_.Get(), near_end_.Get(), in);
  outbound_.emplace(near_end_.Get(), link_.Get(), out);
}

RelayDirection::Tap LaunchSession::MakeTap(
    PcapngWriter::Direction direction) const {
  return [capture = capture_, direction](const std::string& bytes) {
    capture->WriteBytes(direction, bytes, std::chrono::system_clock::now());
  };
}

LaunchSession::end_t LaunchSession::Run() {
  while (!IsOver(std::chrono::steady_clock::now())) WaitAndHandle();
  if (status_.Get() >= 0) EndStatus();
  CountLinkBytes();
  end_.wait_status = daemon_->GetWaitStatus();
  return end_;
}

bool LaunchSession::IsOver(SteadyTime now) const {
  if (daemon_->IsRunning()) return false;
  const bool is_flushed = !outbound_ || outbound_->IsOver();
  return (status_.Get() < 0 && is_flushed) || now >= *grace_end_;
}

void LaunchSession::WaitAndHandle() {
  SteadyTime now = std::chrono::steady_clock::now();
  std::vector<pollfd> waits;
  std::vector<Handler> handlers;
  const auto add = [&](int fd, short events, Handler handler) {
    if (fd < 0) return;
    waits.push_back({fd, events, 0});
    handlers.push_back(handler);
  };
  add(signal_fd_, POLLIN, &LaunchSession::HandleSignal);
  add(status_.Get(), POLLIN, &LaunchSession::HandleStatus);
  if (rules_look_) {
    add(rules_look_->GetFd(), POLLIN, &LaunchSession::HandleRulesLook);
  }
  for (const int fd : reporter_.GetFdsToWrite()) {
    add(fd, POLLOUT, &LaunchSession::FlushReports);
  }
  if (inbound_) {
    add(inbound_->GetFdToWrite(now), POLLOUT, &LaunchSession::WriteInbound);
    add(outbound_->GetFdToWrite(now), POLLOUT, &LaunchSession::WriteOutbound);
    add(inbound_->GetFdToRead(), POLLIN, &LaunchSession::ReadInbound);
    add(outbound_->GetFdToRead(), POLLIN, &LaunchSession::ReadOutbound);
  }
  timespec timeout = {};
  const auto next = GetNextTime(now);
  if (next) timeout = ToTimespec(*next - now);
  ppoll(waits.data(), waits.size(), next ? &timeout : nullptr, nullptr);
  now = std::chrono::steady_clock::now();
  for (size_t i = 0; i < waits.size(); ++i) {
    if (waits[i].revents != 0) (this->*handlers[i])(now);
  }
  HandleTime(now);
}

void LaunchSession::HandleTime(SteadyTime now) {
  if (next_stats_ && now >= *next_stats_) AskForStats(now);
  if (kill_time_ && now >= *kill_time_) KillDaemon();
  if (silence_time_ && now >= *silence_time_) NoteSilence();
}

std::optional<SteadyTime> LaunchSession::GetNextTime(SteadyTime now) const {
  std::optional<SteadyTime> next = grace_end_;
  const auto consider = [&next](const std::optional<SteadyTime>& time) {
    if (time && (!next || *time < *next)) next = time;
  };
  consider(next_stats_);
  consider(kill_time_);
  consider(silence_time_);
  if (inbound_) {
    consider(inbound_->GetNextTime(now));
    consider(outbound_->GetNextTime(now));
  }
  return next;
}

void LaunchSession::HandleSignal(SteadyTime now) {
  signalfd_siginfo info;
  if (read(signal_fd_, &info, sizeof(info)) != sizeof(info)) return;
  if (info.ssi_signo != SIGCHLD) {
    end_.is_stop_wanted = true;
    reporter_.Stopping();
    daemon_->Signal(static_cast<int>(info.ssi_signo));
    if (!kill_time_) kill_time_ = now + kDaemonEndTimeout;
    return;
  }
  if (daemon_->Reap() && !grace_end_) {
    grace_end_ = now + kGrace;
    next_stats_.reset();
    kill_time_.reset();
    silence_time_.reset();
    rules_look_.reset();
  }
}

void LaunchSession::HandleRulesLook(SteadyTime /*now*/) {
  if (!rules_look_->Advance()) return;
  try {
    const size_t complete = GetCompleteRuleCount();
    const size_t found = rules_look_->GetRules().size();
    if (found < complete) {
      reporter_.Say("warning: " + std::to_string(found) + " of " +
                    std::to_string(complete) +
                    " interception rules stand: applications have no network, "
                    "or not all of it; the daemon's log says why");
    }
  } catch (const std::exception& e) {
    reporter_.Say(std::string("warning: ") + e.what());
  }
  rules_look_.reset();
}

void LaunchSession::FlushReports(SteadyTime /*now*/) { reporter_.Flush(); }

void LaunchSession::KillDaemon() {
  reporter_.Say("the daemon has not ended within " +
                std::to_string(kDaemonEndTimeout.count()) + " s and is killed");
  daemon_->Kill();
  kill_time_.reset();
}

void LaunchSession::NoteSilence() {
  silence_time_.reset();
  if (inbound_->GetMovedByteCount() > 0) return;
  reporter_.Say(
      "warning: the companion has not said anything yet; does it "
      "speak protocol " +
      options_.protocol + ", without --header?");
}

void LaunchSession::HandleStatus(SteadyTime now) {
  char bytes[4096];
  const ssize_t count = read(status_.Get(), bytes, sizeof(bytes));
  if (count < 0 && errno == EINTR) return;
  if (count <= 0) return EndStatus();
  status_reader_.Append(bytes, static_cast<size_t>(count));
  const bool was_well = status_reader_.GetProblem().empty();
  status_record_t record;
  while (status_reader_.Next(&record)) HandleRecord(record, now);
  if (was_well && !status_reader_.GetProblem().empty()) {
    reporter_.Say("the status channel brought " + status_reader_.GetProblem() +
                  "; the rest is ignored");
  }
}

void LaunchSession::HandleRecord(const status_record_t& record,
                                 SteadyTime now) {
  CountLinkBytes();
  reporter_.Record(record);
  if (record.kind != status_record_t::kStarted) return;
  end_.has_started = true;
  rules_look_.emplace(RulesTask::kList);
  if (inbound_ && options_.protocol != "1") {
    silence_time_ = now + kSilenceTimeout;
  }
  if (options_.stats_every_seconds > 0) {
    next_stats_ = now + std::chrono::seconds(options_.stats_every_seconds);
  }
}

void LaunchSession::EndStatus() {
  const std::string cut = status_reader_.DescribeCutRecord();
  if (!cut.empty()) {
    reporter_.Say("the status channel ended in the middle of a " + cut);
  }
  status_.Reset();
}

void LaunchSession::AskForStats(SteadyTime now) {
  next_stats_ = now + std::chrono::seconds(options_.stats_every_seconds);
  try {
    if (!control_port_) control_port_.emplace();
    control_port_->Send(EncodeControlPacket(TYPE_TRANSFER_STATS));
    // On the loopback a refusal is there before the call returns.
    if (!control_port_->IsRefused()) return;
    reporter_.Say(
        "the control port does not listen; statistics come only "
        "when the daemon ends");
  } catch (const std::exception& e) {
    reporter_.Say(e.what());
  }
  next_stats_.reset();
}

void LaunchSession::ReadInbound(SteadyTime now) {
  inbound_->Read(now);
  if (inbound_->GetState() != RelayDirection::kFlowing) {
    EndLink(inbound_->GetReadError(), now);
  }
}

void LaunchSession::WriteInbound(SteadyTime now) { inbound_->Write(now); }

void LaunchSession::ReadOutbound(SteadyTime now) { outbound_->Read(now); }

void LaunchSession::WriteOutbound(SteadyTime now) {
  outbound_->Write(now);
  if (outbound_->GetState() != RelayDirection::kBroken) return;
  // Nothing would tell the daemon otherwise: only this direction failed.
  shutdown(near_end_.Get(), SHUT_RDWR);
  EndLink(outbound_->GetWriteError(), now);
}

void LaunchSession::EndLink(int error, SteadyTime now) {
  if (is_link_over_ || !daemon_->IsRunning()) return;
  is_link_over_ = true;
  if (!kill_time_) kill_time_ = now + kDaemonEndTimeout;
  // A stop ends the link, too, and so does the daemon when it ends.
  const bool is_ordered =
      end_.is_stop_wanted || outbound_->GetState() == RelayDirection::kEnded;
  if (is_ordered) return;
  reporter_.Say(std::string("the link ended") +
                (error != 0 ? std::string(": ") + strerror(error) : ""));
}

void LaunchSession::CountLinkBytes() {
  if (!inbound_) return;
  const uint64_t in = inbound_->GetMovedByteCount();
  const uint64_t out = outbound_->GetMovedByteCount();
  reporter_.AddLinkBytes(in - std::exchange(counted_inbound_, in),
                         out - std::exchange(counted_outbound_, out));
}

}  // namespace vantrel
