#pragma once

#include <stdint.h>

#include <optional>
#include <string>

namespace vantrel {

// One command for the daemon's control port, and how to follow it.
struct control_command_t {
  std::string name;    // as typed
  uint8_t type = 0;    // of the control packet
  uint32_t bytes = 0;  // of a transfer
  std::string log;     // the daemon's log file; empty: do not follow
  int timeout_seconds = 0;
};

// A number of bytes, also as 64K, 10M or 1G (powers of 1024). None when it is
// something else or more than a control packet can carry.
std::optional<uint32_t> ParseByteCount(const std::string& text);

// Sends the command and, with a log, waits for its outcome and prints it. The
// exit status for the process. Throws std::system_error.
int RunControlCommand(const control_command_t& command);

}  // namespace vantrel
