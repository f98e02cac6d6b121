#include "tools/launch/launcher.h"

#include <sys/wait.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include "control/status_records.h"
#include "support/exit_status.h"
#include "support/system_failure.h"
#include "tools/launch/link_connector.h"

namespace vantrel {
namespace {

// Longer than a Bluetooth page takes before the controller gives up by itself.
constexpr std::chrono::seconds kConnectTimeout{30};

// A signal shortens the wait for the packet-filter tool to this: one that is
// well has long ended by then.
constexpr std::chrono::seconds kHurriedRulesTime{2};

constexpr std::chrono::seconds kFirstPause{1};
constexpr std::chrono::seconds kLongestPause{60};

// What ends earlier has done no work: most often the companion speaks another
// protocol, or sends the device away. It will again.
constexpr std::chrono::seconds kAtOnce{1};

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
      reporter_(options, loop_),
      name_server_([this](const std::string& text) { reporter_.Say(text); }) {
  if (!options.capture.empty()) {
    capture_ = std::make_unique<PcapngWriter>(
        loop_.GetContext(), options.capture,
        [this](const std::string& message) { reporter_.Say(message); });
  }
}

Launcher::~Launcher() { TakeNetworkAway(); }

void Launcher::MakeNetwork() {
  if (options_.makes_network) {
    try {
      network_.Make([this](const std::string& text) { reporter_.Say(text); });
    } catch (const std::exception& e) {
      throw std::runtime_error(e.what() +
                               std::string("; --no-network goes without it"));
    }
    has_network_ = true;
  }
  if (options_.gives_name_server) name_server_.TakeBackLeftOver();
}

void Launcher::TakeNetworkAway() {
  name_server_.TakeBack();
  if (!std::exchange(has_network_, false)) return;
  for (const std::string& fault : network_.TakeAway()) {
    reporter_.Say("of the device's network something is left: " + fault);
  }
}

int Launcher::Run() {
  MakeNetwork();
  std::chrono::seconds pause = kFirstPause;
  while (true) {
    const attempt_t attempt = Attempt();
    if (!options_.is_restarting || attempt.is_final) {
      return End(attempt.exit_status);
    }
    if (attempt.has_worked) pause = kFirstPause;
    reporter_.Waiting(pause);
    loop_.WaitFor(-1, EventLoop::Readiness::kReadable, GetSteadyTime() + pause);
    if (loop_.GetStopSignal() != 0) return End(128 + loop_.GetStopSignal());
    pause = std::min(2 * pause, kLongestPause);
  }
}

int Launcher::End(int exit_status) {
  if (loop_.GetStopSignal() != 0) reporter_.Stopping();
  TakeNetworkAway();
  if (capture_) capture_->Finish(LaunchReporter::kLastMomentMs);
  reporter_.Finish();
  return exit_status;
}

Launcher::attempt_t Launcher::Attempt() {
  try {
    reporter_.Connecting();
    connected_link_t link =
        ConnectLink(options_.link, options_.security, &loop_, kConnectTimeout);
    reporter_.Connected(link.text, link.name);
    return RunSession(std::move(link));
  } catch (const ChoiceNeeded& choice) {
    return GiveUp(choice);
  } catch (const std::exception& e) {
    reporter_.Failed(e.what());
  }
  attempt_t attempt;
  const int stop_signal = loop_.GetStopSignal();
  attempt.is_final = stop_signal != 0;
  if (stop_signal != 0) attempt.exit_status = 128 + stop_signal;
  return attempt;
}

Launcher::attempt_t Launcher::GiveUp(const ChoiceNeeded& choice) {
  reporter_.Failed(choice.what());
  for (const std::string& line : choice.GetChoices()) reporter_.Say(line);
  attempt_t attempt;
  attempt.is_final = true;
  attempt.exit_status = kUsageStatus;
  return attempt;
}

Launcher::attempt_t Launcher::RunSession(connected_link_t link) {
  if (options_.gives_name_server) name_server_.Give();
  const LaunchSession::end_t end =
      LaunchSession(options_, std::move(link), loop_, reporter_, capture_.get(),
                    [this] { name_server_.HandleStart(); })
          .Run();
  attempt_t attempt;
  attempt.has_worked = end.uptime >= kAtOnce;
  attempt.exit_status = WIFSIGNALED(end.wait_status)
                            ? 128 + WTERMSIG(end.wait_status)
                            : WEXITSTATUS(end.wait_status);
  name_server_.TakeBack();
  attempt.is_final = end.is_stop_wanted || IsUsageError(end.wait_status);
  if (!CleanUp()) {
    attempt.is_final = true;
    if (attempt.exit_status == 0) attempt.exit_status = 1;
  }
  attempt.is_final |= loop_.GetStopSignal() != 0;
  reporter_.DaemonEnded(end.wait_status);
  return attempt;
}

bool Launcher::CleanUp() {
  try {
    const size_t left = RunRules(RulesTask::Kind::kList).size();
    if (left == 0) return true;
    RunRules(RulesTask::Kind::kRemove);
    if (RunRules(RulesTask::Kind::kList).empty()) {
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
    switch (loop_.WaitFor(task.GetFd(), EventLoop::Readiness::kReadable, end)) {
      case EventLoop::Wake::kReady:
        is_over = task.Advance();
        break;
      case EventLoop::Wake::kSignal:
        end = std::min(end, GetSteadyTime() + kHurriedRulesTime);
        break;
      case EventLoop::Wake::kTimeout:
        throw RulesToolHangs(
            "stopped while the packet-filter tool was at work; rules may be "
            "left");
    }
  }
  return task.GetRules();
}

}  // namespace vantrel
