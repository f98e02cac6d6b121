#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "common/host_and_port.h"

namespace vantrel {

// Logs the names and addresses of the DNS messages (RFC 1035) that pass by.
// Only reads: a malformed packet ends its own logging and nothing else, and no
// packet is ever read past its end.
class Dns {
 public:
  static constexpr uint16_t kPort = 53;
  static constexpr size_t kHeaderSize = 12;
  static constexpr int kResponseFlag = 0x80;  // QR, in byte 2 of the header
  static constexpr char kRefused = 5;         // response code

  // Logs what a captured datagram to |destination| asks for.
  static void LogRequest(const HostAndPort& destination,
                         const std::string& packet);
  // Logs what a datagram from |source| answers.
  static void LogResponse(const HostAndPort& source, const std::string& packet);
};

// Decodes the name at |offset|, its labels joined by dots and otherwise as they
// are, and moves |offset| past it: past its zero byte or its two-byte
// compression pointer. The end of the packet ends the name.
std::string ExtractName(const std::string& packet, uint32_t& offset);

}  // namespace vantrel
