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

#include "tools/launch/link_connector.h"
#include "tools/rules.h"
#include "tools/system_failure.h"

namespace vantrel {
namespace {

// Longer than a Bluetooth page takes before the controller gives up by itself.
constexpr std::chrono::seconds kConnectTimeout{30};

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
         (WEXITSTATUS(wait_status) == 20 || WEXITSTATUS(wait_status) == 21);
}

}  // namespace

Launcher::Launcher(const launch_options_t& options)
    : options_(options), reporter_(options), signal_fd_(TakeOverSignals()) {
  if (!options.capture.empty()) {
    capture_ = std::make_unique<PcapngWriter>(options.capture);
  }
}

int Launcher::Run() {
  std::chrono::seconds pause = kFirstPause;
  while (true) {
    attempt_t attempt = Attempt();
    if (!options_.is_restarting || attempt.is_final) {
      return attempt.exit_status;
    }
    if (attempt.has_started) pause = kFirstPause;
    reporter_.Say("connecting again in " + std::to_string(pause.count()) +
                  " s");
    if (!Pause(pause, &attempt.exit_status)) return attempt.exit_status;
    pause = std::min(2 * pause, kLongestPause);
  }
}

Launcher::attempt_t Launcher::Attempt() {
  attempt_t attempt;
  try {
    reporter_.Connecting();
    return RunSession(
        ConnectLink(options_.link, signal_fd_.Get(), kConnectTimeout));
  } catch (const std::exception& e) {
    reporter_.Say(e.what());
  }
  const int signal = TakeSignal();
  attempt.is_final = signal != 0;
  if (signal != 0) attempt.exit_status = 128 + signal;
  return attempt;
}

Launcher::attempt_t Launcher::RunSession(connected_link_t link) {
  LaunchSession session(options_, std::move(link), signal_fd_.Get(), reporter_,
                        capture_.get());
  const LaunchSession::end_t end = session.Run();
  attempt_t attempt;
  attempt.has_started = end.has_started;
  attempt.is_final = end.is_stop_wanted || IsUsageError(end.wait_status);
  if (WIFSIGNALED(end.wait_status)) {
    // It had no chance to take them away itself.
    RemoveRules();
    attempt.exit_status = 128 + WTERMSIG(end.wait_status);
  } else {
    attempt.exit_status = WEXITSTATUS(end.wait_status);
  }
  reporter_.DaemonEnded(end.wait_status);
  return attempt;
}

bool Launcher::Pause(std::chrono::seconds duration, int* exit_status) {
  const auto end = std::chrono::steady_clock::now() + duration;
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now());
    if (left.count() <= 0) return true;
    pollfd wait = {signal_fd_.Get(), POLLIN, 0};
    poll(&wait, 1, static_cast<int>(left.count()));
    const int signal = TakeSignal();
    if (signal == 0) continue;
    *exit_status = 128 + signal;
    return false;
  }
}

int Launcher::TakeSignal() {
  signalfd_siginfo info;
  while (read(signal_fd_.Get(), &info, sizeof(info)) == sizeof(info)) {
    // A SIGCHLD is left over from a child that was waited for.
    if (info.ssi_signo == SIGCHLD) continue;
    reporter_.Stopping();
    return static_cast<int>(info.ssi_signo);
  }
  return 0;
}

}  // namespace vantrel
