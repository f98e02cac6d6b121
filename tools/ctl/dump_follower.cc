#include "tools/ctl/dump_follower.h"

#include <exception>

namespace vantrel {
namespace {

// A log that grows faster than it is read must not keep those who show it.
constexpr int kMaxLinesAtOnce = 10000;

}  // namespace

DumpFollower::DumpFollower(const std::string& log)
    : log_(log),
      outcome_(CommandOutcome(TYPE_DUMP)),
      daemon_(FindControlPortOwner()) {}

std::string DumpFollower::Ask() {
  try {
    // The statistics come to the launcher, which has them in its next state.
    for (const uint8_t type : {TYPE_TRANSFER_STATS, TYPE_DUMP}) {
      port_.Send(EncodeControlPacket(type));
      // On the loopback the refusal is there before the call returns.
      if (port_.IsRefused()) {
        return "no streams: the control port does not listen (only where "
               "ro.debuggable is true)";
      }
    }
  } catch (const std::exception& e) {
    return e.what();
  }
  return "";
}

std::optional<link_dump_t> DumpFollower::Read() {
  std::optional<link_dump_t> dump;
  std::string text;
  for (int i = 0; i < kMaxLinesAtOnce && log_.Next(&text); ++i) {
    const auto line = ParseLogLine(text);
    if (!line || (daemon_ && line->process != *daemon_)) continue;
    owners_.Take(line->message);
    if (outcome_->Take(line->message) == CommandOutcome::State::kDone) {
      dump = ParseDump(outcome_->GetText());
      outcome_.emplace(TYPE_DUMP);
    }
  }
  return dump;
}

void DumpFollower::Forget() {
  owners_.Clear();
  outcome_.emplace(TYPE_DUMP);
  daemon_ = FindControlPortOwner();
}

}  // namespace vantrel
