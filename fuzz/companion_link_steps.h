// What a script for a link of the companion consists of.
#pragma once

#include <stdint.h>

namespace vantrel {

// Where the remotes wait, on the loopback address.
constexpr uint16_t kRemoteTcpPort = 8080;
constexpr uint16_t kRemoteUdpPort = 5353;

// The steps of a script, each one byte: the kind in the low four bits, and in
// the high four which accepted connection it is about.
enum : uint8_t {
  STEP_DEVICE_SAYS = 0,  // the message, as TakeMessage() reads it
  STEP_ACCEPT = 1,
  STEP_REMOTE_SENDS = 2,  // u16: the number of bytes
  STEP_REMOTE_ENDS = 3,
  STEP_REMOTE_RESETS = 4,
  STEP_REMOTE_READS = 5,
  STEP_DEVICE_READS = 6,
  STEP_ANSWER = 7,  // u16: the size of a datagram
  STEP_TICK = 8,    // u8: seconds pass
  STEP_DEVICE_ENDS = 9,
  STEP_CLOSE = 10,
  STEP_NETWORK = 11,
};

}  // namespace vantrel
