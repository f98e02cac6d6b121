// For unit tests: wire bytes and endpoints spelled out.
#pragma once

#include <string>

#include "common/host_and_port.h"

namespace vantrel {

// The bytes that |hex| spells, two digits each; blanks are for the reader.
inline std::string Bytes(const std::string& hex) {
  std::string digits;
  for (const char c : hex) {
    if (c != ' ') digits += c;
  }
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// |address_hex| has 4 or 16 bytes, or none.
inline HostAndPort Endpoint(const std::string& address_hex, uint16_t port) {
  return HostAndPort(IpAddress::FromNetworkBytes(Bytes(address_hex)), port);
}

}  // namespace vantrel
