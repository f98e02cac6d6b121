#include "tools/ctl/command_outcome.h"

#include <stdlib.h>

#include <cmath>
#include <regex>

#include "common/log_texts.h"
#include "common/printable.h"
#include "control/status_records.h"

namespace vantrel {
namespace {

// What follows |prefix| in |message| when that begins with it.
bool TakePrefix(const std::string& message, const std::string& prefix,
                std::string* rest) {
  if (message.compare(0, prefix.size(), prefix) != 0) return false;
  *rest = message.substr(prefix.size());
  return true;
}

// The daemon divides by whole milliseconds, of which a short transfer has none.
std::string DescribeRate(const std::string& rate) {
  return std::isfinite(strtod(rate.c_str(), nullptr)) ? rate
                                                      : "too fast to measure";
}

}  // namespace

// How the daemon logs a transfer.
struct CommandOutcome::transfer_texts_t {
  const char* verb;
  const char* started;    // the number follows
  const char* number;     // the number follows
  const char* completed;  // behind the number; the rate follows
};

const CommandOutcome::transfer_texts_t CommandOutcome::kPull = {
    "pull", VANTREL_TEXT_PULL_STARTED, VANTREL_TEXT_PULL,
    VANTREL_TEXT_PULL_COMPLETED};
const CommandOutcome::transfer_texts_t CommandOutcome::kPush = {
    "push", VANTREL_TEXT_PUSH_STARTED, VANTREL_TEXT_PUSH,
    VANTREL_TEXT_PUSH_COMPLETED};

CommandOutcome::State CommandOutcome::Take(const std::string& message) {
  if (type_ != TYPE_STOP && message == VANTREL_TEXT_FINISHED) {
    return Finish(State::kFailed, "the daemon ended");
  }
  switch (type_) {
    case TYPE_STOP:
      return TakeStop(message);
    case TYPE_DUMP:
      return TakeDump(message);
    case TYPE_PING:
      return TakePing(message);
    case TYPE_PULL:
      return TakeTransfer(message, kPull);
    case TYPE_PUSH:
      return TakeTransfer(message, kPush);
    default:
      return TakeStats(message);
  }
}

CommandOutcome::State CommandOutcome::TakeStop(const std::string& message) {
  if (message == VANTREL_TEXT_STOP_RECEIVED) Begin("stopping");
  if (message != VANTREL_TEXT_FINISHED) return State::kWaiting;
  return Finish(State::kDone, "stopped");
}

CommandOutcome::State CommandOutcome::TakeDump(const std::string& message) {
  if (message == VANTREL_TEXT_DUMP_END && is_in_dump_)
    return Finish(State::kDone, dump_);
  if (is_in_dump_) dump_ += (dump_.empty() ? "" : "\n") + message;
  if (message == VANTREL_TEXT_DUMP_BEGIN) {  // also of one that was cut off
    is_in_dump_ = true;
    dump_.clear();
    Begin("the dump is being written");
  }
  return State::kWaiting;
}

CommandOutcome::State CommandOutcome::TakePing(const std::string& message) {
  std::string time;
  if (!TakePrefix(message, VANTREL_TEXT_PING_TIME, &time))
    return State::kWaiting;
  return Finish(State::kDone, "round trip: " + time + " ms");
}

CommandOutcome::State CommandOutcome::TakeTransfer(
    const std::string& message, const transfer_texts_t& texts) {
  std::string rest;
  if (transfer_.empty()) {
    if (TakePrefix(message, texts.started, &rest)) {
      transfer_ = rest.substr(0, rest.find(' '));
      Begin(texts.verb + (" " + transfer_) + " is running");
    }
    return State::kWaiting;
  }
  if (!TakePrefix(message, texts.number + transfer_ + texts.completed, &rest)) {
    return State::kWaiting;
  }
  return Finish(State::kDone,
                texts.verb + (" " + transfer_) + ": " + DescribeRate(rest));
}

CommandOutcome::State CommandOutcome::TakeStats(const std::string& message) {
  std::string length;
  if (!TakePrefix(message, VANTREL_TEXT_STATS_LENGTH, &length)) {
    return State::kWaiting;
  }
  if (strtoul(length.c_str(), nullptr, 10) > kMaxTransferStatsBytes) {
    return Finish(State::kFailed, "the report was too large (" + length +
                                      " bytes) and is lost");
  }
  return Finish(State::kDone,
                "a report of " + length + " bytes is on the status channel");
}

void CommandOutcome::Begin(const std::string& text) {
  has_begun_ = true;
  text_ = text;
}

CommandOutcome::State CommandOutcome::Finish(State state,
                                             const std::string& text) {
  Begin(text);
  return state;
}

std::optional<log_line_t> ParseLogLine(const std::string& line) {
  static const std::regex kHead(
      R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +(\d{1,9}) +\d+ [VDIWEF] vantrel: )");
  std::smatch head;
  if (!std::regex_search(line, head, kHead,
                         std::regex_constants::match_continuous)) {
    return std::nullopt;
  }
  return log_line_t{std::stoi(head[1]), EscapeControls(head.suffix())};
}

}  // namespace vantrel
