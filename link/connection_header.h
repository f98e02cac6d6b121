// The header that the platform's Bluetooth socket delivers once, before any
// payload. Both link protocols read it, and whoever hands the daemon a plain
// socket writes it in its place.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <string>

#include "reactor/socket.h"

namespace vantrel {

// Offsets on the wire, all integers little-endian: 0 channel i32, 4 unused,
// 6 address, 12 unused, 16 status i32, 20 max_tx_size u16, 22 max_rx_size u16.
struct connection_header_t {
  int32_t channel = 0;
  std::array<uint8_t, 6> address = {};  // of the companion, printed in order
  int32_t status = 0;                   // 0: connected
  uint16_t max_tx_size = 0;             // largest single write, 0: unlimited
  uint16_t max_rx_size = 0;             // for the log only
};

constexpr size_t kConnectionHeaderSize = 24;

std::string EncodeConnectionHeader(const connection_header_t& header);
// |bytes| points to kConnectionHeaderSize bytes.
connection_header_t DecodeConnectionHeader(const char* bytes);

// Whether a link can be taken over on |fd|; logged when not. The wait below
// works on descriptors up to a fixed number.
[[nodiscard]] bool IsUsableLinkDescriptor(int fd);

// Waits for the header on |socket|, at most 5 seconds for all of it, and logs
// each step. False when it does not come whole or reports a failed connection;
// the reason is logged. Reads no byte behind the header.
[[nodiscard]] bool ReceiveConnectionHeader(const Socket& socket,
                                           connection_header_t* header);

}  // namespace vantrel
