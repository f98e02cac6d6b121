#pragma once

#include <stdint.h>

#include <optional>
#include <string>

#include "control/control_packets.h"

namespace vantrel {

// Finds in the daemon's log what became of one control packet. The daemon logs
// no reference to the packet, so the first outcome of its kind counts; of the
// transfers, which have numbers, the first that started.
class CommandOutcome {
 public:
  enum class State { kWaiting, kDone, kFailed };

  // |type| is that of the control packet.
  explicit CommandOutcome(uint8_t type) : type_(type) {}

  // Takes the messages that followed the packet, in order.
  State Take(const std::string& message);

  // Whether the daemon has said anything about the packet yet.
  bool HasBegun() const { return has_begun_; }

  // What to tell a person. While waiting: what is being waited for.
  const std::string& GetText() const { return text_; }

 private:
  struct transfer_texts_t;
  static const transfer_texts_t kPull;
  static const transfer_texts_t kPush;

  State TakeStop(const std::string& message);
  State TakeDump(const std::string& message);
  State TakePing(const std::string& message);
  State TakeTransfer(const std::string& message, const transfer_texts_t& texts);
  State TakeStats(const std::string& message);
  void Begin(const std::string& text);
  State Finish(State state, const std::string& text);

  const uint8_t type_;
  std::string text_ = "nothing in the log yet";
  bool has_begun_ = false;
  bool is_in_dump_ = false;
  std::string dump_;
  std::string transfer_;  // the number of ours; empty before it has started
};

// One line of the daemon's log file.
struct log_line_t {
  int process = 0;      // as the daemon numbers itself
  std::string message;  // with nothing in it that a terminal obeys
};

// None for a line that is not in the form of the daemon's.
std::optional<log_line_t> ParseLogLine(const std::string& line);

}  // namespace vantrel
