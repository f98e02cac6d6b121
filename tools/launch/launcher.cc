#include "tools/launch/launcher.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <string>
#include <utility>

#include "control/status_records.h"
#include "tools/launch/link_connector.h"
#include "tools/system_failure.h"

namespace vantrel {
namespace {

// Longer than a Bluetooth page takes before the controller gives up by itself.
constexpr std::chrono::seconds kConnectTimeout{30};

// A signal shortens the wait for the packet-filter tool to this: one that is
// well has long ended by then.
constexpr std::chrono::seconds kHurriedRulesTime{2};

constexpr std::chrono::seconds kFirstPause{1};
constexpr std::chrono::seconds kLongestPause{60};

UniqueFd TakeOverSignals() {
  signal(SIGPIPE, SIG_IGN);
  sigset_t taken;
  sigemptyset(&taken);
  sigaddset(&taken, SIGINT);
  sigaddset(&taken, SIGTERM);
  sigaddset(&taken, SIGCHLD);
  sigprocmask(SIG_BLOCK, &taken, nullptr);
  UniqueFd fd(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
  if (fd.Get() < 0) throw SystemFailure("no signal descriptor");
  return fd;
}

// The daemon refused its arguments, as it will the next time.
bool IsUsageError(int wait_status) {
  return WIFEXITED(wait_status) &&
         (WEXITSTATUS(wait_status) == kBadArgumentCount ||
          WEXITSTATUS(wait_status) == kBadVersion);
}

}  // namespace

Launcher::Launcher(const launch_options_t& options)
    : options_(options),
      lock_(options.lock),
      reporter_(options),
      signal_fd_(TakeOverSignals()) {
  if (!options.capture.empty()) {
    capture_ = std::make_unique<PcapngWriter>(options.capture);
  }
}

int Launcher::Run() {
  std::chrono::seconds pause = kFirstPause;
  while (true) {
    const attempt_t attempt = Attempt();
    if (!options_.is_restarting || attempt.is_final) {
      return End(attempt.exit_status);
    }
    if (attempt.has_started) pause = kFirstPause;
    reporter_.Say("connecting again in " + std::to_string(pause.count()) +
                  " s");
    const auto end = std::chrono::steady_clock::now() + pause;
    while (stop_signal_ == 0 && std::chrono::steady_clock::now() < end) {
      Wait(-1, end);
    }
    if (stop_signal_ != 0) return End(128 + stop_signal_);
    pause = std::min(2 * pause, kLongestPause);
  }
}

int Launcher::End(int exit_status) {
  reporter_.Finish();
  return exit_status;
}

Launcher::attempt_t Launcher::Attempt() {
  try {
    reporter_.Connecting();
    return RunSession(
        ConnectLink(options_.link, signal_fd_.Get(), kConnectTimeout));
  } catch (const std::exception& e) {
    reporter_.Say(e.what());
  }
  TakeSignal();
  attempt_t attempt;
  attempt.is_final = stop_signal_ != 0;
  if (stop_signal_ != 0) attempt.exit_status = 128 + stop_signal_;
  return attempt;
}

Launcher::attempt_t Launcher::RunSession(connected_link_t link) {
  LaunchSession session(options_, std::move(link), signal_fd_.Get(), reporter_,
                        capture_.get());
  const LaunchSession::end_t end = session.Run();
  attempt_t attempt;
  attempt.has_started = end.has_started;
  attempt.exit_status = WIFSIGNALED(end.wait_status)
                            ? 128 + WTERMSIG(end.wait_status)
                            : WEXITSTATUS(end.wait_status);
  attempt.is_final = end.is_stop_wanted || IsUsageError(end.wait_status);
  if (!CleanUp()) {
    attempt.is_final = true;
    if (attempt.exit_status == 0) attempt.exit_status = 1;
  }
  attempt.is_final |= stop_signal_ != 0;
  reporter_.DaemonEnded(end.wait_status);
  return attempt;
}

bool Launcher::CleanUp() {
  try {
    const size_t left = RunRules(RulesTask::kList).size();
    if (left == 0) return true;
    RunRules(RulesTask::kRemove);
    if (RunRules(RulesTask::kList).empty()) {
      reporter_.Say("removed " + std::to_string(left) +
                    " interception rules that the daemon had left");
      return true;
    }
    reporter_.Say("interception rules are left; see vantrelctl rules status");
  } catch (const RulesToolHangs& e) {
    reporter_.Say(e.what());
  } catch (const std::exception& e) {
    // Where nobody can read the rules, nobody could have set them.
    reporter_.Say(e.what());
    return true;
  }
  return false;
}

std::vector<std::string> Launcher::RunRules(RulesTask::Kind kind) {
  RulesTask task(kind);
  auto end = SteadyTime::max();
  bool is_over = false;
  while (!is_over) {
    const bool was_hurried = stop_signal_ != 0;
    if (Wait(task.GetFd(), end)) is_over = task.Advance();
    const auto now = std::chrono::steady_clock::now();
    if (now >= end) {
      throw RulesToolHangs(
          "stopped while the packet-filter tool was at work; rules may be "
          "left");
    }
    if (!was_hurried && stop_signal_ != 0) end = now + kHurriedRulesTime;
  }
  return task.GetRules();
}

bool Launcher::Wait(int fd, SteadyTime end) {
  int timeout_ms = -1;
  if (end != SteadyTime::max()) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    timeout_ms = std::max(0, static_cast<int>(left.count()));
  }
  pollfd waits[] = {{fd, POLLIN, 0}, {signal_fd_.Get(), POLLIN, 0}};
  poll(waits, 2, timeout_ms);
  if (waits[1].revents != 0) TakeSignal();
  return waits[0].revents != 0;
}

void Launcher::TakeSignal() {
  signalfd_siginfo info;
  while (read(signal_fd_.Get(), &info, sizeof(info)) == sizeof(info)) {
    // A SIGCHLD is left over from a child that was waited for.
    if (info.ssi_signo == SIGCHLD) continue;
    reporter_.Stopping();
    stop_signal_ = static_cast<int>(info.ssi_signo);
  }
}

}  // namespace vantrel
