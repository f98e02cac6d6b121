#include "tools/ctl/control_command.h"

#include <stdio.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "tools/control_port.h"
#include "tools/ctl/command_outcome.h"
#include "tools/ctl/log_follower.h"

namespace vantrel {
namespace {

using Clock = std::chrono::steady_clock;

// The daemon notes most packets as soon as it has them.
constexpr std::chrono::seconds kFirstLineTimeout{3};

// Far less than a round trip over Bluetooth takes.
constexpr std::chrono::milliseconds kLogInterval{10};

// How long the last look at the log may take.
constexpr std::chrono::milliseconds kLastLook{200};

bool IsTransfer(const control_command_t& command) {
  return command.type == TYPE_PULL || command.type == TYPE_PUSH;
}

void Send(const control_command_t& command) {
  ControlPort port;
  port.Send(IsTransfer(command)
                ? EncodeControlPacket(command.type, command.bytes)
                : EncodeControlPacket(command.type));
  // On the loopback the refusal is there before the call returns.
  if (port.IsRefused()) {
    throw std::runtime_error(
        "nothing listens on the control port (the daemon listens only where "
        "ro.debuggable is true)");
  }
}

const char* WhereResultAppears(const control_command_t& command) {
  switch (command.type) {
    case TYPE_STOP:
      return "the daemon says \"Vantrel finished.\" in its log";
    case TYPE_TRANSFER_STATS:
      return "the report appears on the status channel";
    default:
      return "the result appears in the daemon's log";
  }
}

// One line that is written over, for a person who waits at a terminal.
class ProgressLine {
 public:
  void Show(const std::string& text, Clock::duration elapsed) {
    using std::chrono::duration_cast;
    using std::chrono::seconds;
    const auto second = duration_cast<seconds>(elapsed).count();
    if (!is_terminal_ || second == last_second_) return;
    last_second_ = second;
    fprintf(stderr, "\r%s, %lld s\033[K", text.c_str(),
            static_cast<long long>(second));
  }
  ~ProgressLine() {
    if (last_second_ > 0) fprintf(stderr, "\r\033[K");
  }

 private:
  const bool is_terminal_ = isatty(STDERR_FILENO) == 1;
  long long last_second_ = 0;
};

// Of the lines of |daemon|, or of anybody's when that is not known. Until
// |end|, for a log may grow faster than it is read.
CommandOutcome::State TakeNewLines(LogFollower* log, std::optional<int> daemon,
                                   CommandOutcome* outcome,
                                   Clock::time_point end) {
  auto state = CommandOutcome::State::kWaiting;
  std::string text;
  while (state == CommandOutcome::State::kWaiting && Clock::now() < end &&
         log->Next(&text)) {
    const auto line = ParseLogLine(text);
    if (!line || (daemon && line->process != *daemon)) continue;
    state = outcome->Take(line->message);
  }
  return state;
}

CommandOutcome::State Follow(LogFollower* log, std::optional<int> daemon,
                             CommandOutcome* outcome,
                             std::chrono::seconds timeout) {
  const auto start = Clock::now();
  ProgressLine progress;
  while (true) {
    // The log is read once more after the last wait.
    const auto elapsed = Clock::now() - start;
    const auto state =
        TakeNewLines(log, daemon, outcome, start + timeout + kLastLook);
    if (state != CommandOutcome::State::kWaiting || elapsed >= timeout)
      return state;
    if (!outcome->HasBegun() && elapsed >= kFirstLineTimeout) return state;
    progress.Show(outcome->GetText(), elapsed);
    std::this_thread::sleep_for(kLogInterval);
  }
}

int FollowAndPrint(const control_command_t& command, LogFollower* log,
                   std::optional<int> daemon) {
  CommandOutcome outcome(command.type);
  const auto state = Follow(log, daemon, &outcome,
                            std::chrono::seconds(command.timeout_seconds));
  if (state == CommandOutcome::State::kDone) {
    printf("%s\n", outcome.GetText().c_str());
    return 0;
  }
  if (state == CommandOutcome::State::kFailed) {
    fprintf(stderr, "vantrelctl: %s\n", outcome.GetText().c_str());
    return 1;
  }
  if (outcome.HasBegun()) {
    fprintf(stderr, "vantrelctl: no result within %d s: %s\n",
            command.timeout_seconds, outcome.GetText().c_str());
  } else {
    fprintf(stderr,
            "vantrelctl: %s has no line of the daemon about %s; is it the "
            "daemon's log? (With protocol 20 the daemon does nothing on ping, "
            "pull and push.)\n",
            command.log.c_str(), command.name.c_str());
  }
  return 1;
}

}  // namespace

std::optional<uint32_t> ParseByteCount(const std::string& text) {
  uint64_t number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, number);
  if (parsed.ec != std::errc() || number > UINT32_MAX) return std::nullopt;
  const std::string unit(parsed.ptr, end);
  if (unit == "K") {
    number <<= 10;
  } else if (unit == "M") {
    number <<= 20;
  } else if (unit == "G") {
    number <<= 30;
  } else if (!unit.empty()) {
    return std::nullopt;
  }
  if (number > UINT32_MAX) return std::nullopt;
  return static_cast<uint32_t>(number);
}

int RunControlCommand(const control_command_t& command) {
  std::optional<LogFollower> log;
  // Before the packet, so that no outcome is missed.
  if (!command.log.empty()) log.emplace(command.log);
  const std::optional<int> daemon = FindControlPortOwner();
  Send(command);
  const std::string argument =
      IsTransfer(command) ? " " + std::to_string(command.bytes) : "";
  fprintf(stderr, "vantrelctl: sent %s%s to 127.0.0.1:%d; %s\n",
          command.name.c_str(), argument.c_str(), kControlPort,
          WhereResultAppears(command));
  return log ? FollowAndPrint(command, &*log, daemon) : 0;
}

}  // namespace vantrel
