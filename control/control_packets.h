// The datagrams that the daemon's control port takes on the loopback address.
// It never answers: results appear in the log or on the status channel.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "common/byte_order.h"

namespace vantrel {

constexpr uint16_t kControlPort = 2374;

// 0: type; pull and push have at 1: the number of bytes, u32 little-endian.
// Whatever follows is ignored.
enum ControlPacketType : uint8_t {
  TYPE_STOP = 1,
  TYPE_DUMP = 2,
  TYPE_PING = 3,
  TYPE_PULL = 4,
  TYPE_PUSH = 5,
  TYPE_TRANSFER_STATS = 6,
};

// The length of a packet with an argument; the others have one byte.
constexpr size_t kControlArgumentPacketBytes = 5;

inline std::string EncodeControlPacket(uint8_t type) {
  return std::string(1, static_cast<char>(type));
}

inline std::string EncodeControlPacket(uint8_t type, uint32_t argument) {
  std::string out = EncodeControlPacket(type);
  PutLe32(&out, argument);
  return out;
}

// |packet| points to kControlArgumentPacketBytes bytes.
inline uint32_t DecodeControlArgument(const char* packet) {
  return GetLe32(packet + 1);
}

}  // namespace vantrel
