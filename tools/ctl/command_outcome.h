#pragma once

#include <stdint.h>

#include <string>

#include "control/control_packets.h"

namespace vantrel {

// Finds in the daemon's log what became of one control packet. The daemon logs
// no reference to the packet, so the first outcome of its kind counts; of the
// transfers, which have numbers, the first that started.
class CommandOutcome {
 public:
  enum State { kWaiting, kDone, kFailed };

  // |type| is that of the control packet.
  explicit CommandOutcome(uint8_t type) : type_(type) {}

  // Takes the messages that followed the packet, in order.
  State Take(const std::string& message);

  // What to tell a person. While waiting: what is being waited for.
  const std::string& GetText() const { return text_; }

 private:
  State TakeStop(const std::string& message);
  State TakeDump(const std::string& message);
  State TakePing(const std::string& message);
  State TakeTransfer(const std::string& message, const std::string& verb,
                     const std::string& completed);
  State TakeStats(const std::string& message);
  State Finish(State state, const std::string& text);

  const uint8_t type_;
  std::string text_ = "nothing in the log yet";
  bool is_in_dump_ = false;
  std::string dump_;
  std::string transfer_;  // the number of ours; empty before it has started
};

// The message in one line of the daemon's log file; empty for a line that is
// not the daemon's.
std::string GetLogMessage(const std::string& line);

}  // namespace vantrel
