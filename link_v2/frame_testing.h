// For unit tests: frames put together by hand, apart from the encoder.
#pragma once

#include <stdint.h>

#include <string>

#include "common/hex_testing.h"

namespace vantrel {

// CRC-32C bit by bit, as its definition reads; the code under test uses a
// table.
inline uint32_t BitwiseCrc32c(const std::string& bytes) {
  uint32_t crc = 0xFFFFFFFF;
  for (const char byte : bytes) {
    crc ^= static_cast<uint8_t>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1) != 0 ? crc >> 1 ^ 0x82F63B78 : crc >> 1;
    }
  }
  return ~crc;
}

// A frame around any |header| bytes, with a true header checksum.
inline std::string RawFrame(const std::string& header,
                            const std::string& payload, size_t payload_size) {
  const uint32_t crc = header.empty() ? 0 : BitwiseCrc32c(header);
  const size_t fields[] = {header.size(), payload_size, crc ^ crc >> 16};
  std::string frame = "VN";
  for (const size_t field : fields) {
    frame += static_cast<char>(field);
    frame += static_cast<char>(field >> 8);
  }
  return frame + header + payload;
}

// A sound frame: |type| below 128, then the payload's checksum where there is
// one, then |fields_hex|, the rest of the header.
inline std::string Frame(int type, const std::string& fields_hex,
                         const std::string& payload = "") {
  std::string header = {'\x08', static_cast<char>(type)};
  if (!payload.empty()) {
    header += '\x10';
    uint32_t crc = BitwiseCrc32c(payload);
    for (; crc > 0x7F; crc >>= 7) header += static_cast<char>(crc | 0x80);
    header += static_cast<char>(crc);
  }
  return RawFrame(header + Bytes(fields_hex), payload, payload.size());
}

}  // namespace vantrel
