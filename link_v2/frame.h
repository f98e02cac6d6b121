// The layout of a frame of link protocol 20, shared by encoder and decoder.
//
//   offset  width  field
//   0       2      magic, "VN"
//   2       2      header size
//   4       2      payload size; 0: no payload
//   6       2      short CRC-32C of the header bytes
//   8              header: a serialized Header message
//   8+header size  payload: raw bytes, whose CRC-32C stands in the header
//
// The integers are little-endian.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "common/host_and_port.h"
#include "proto/messages_v2.pb.h"

namespace vantrel {

// The messages of proto/messages_v2.proto.
namespace messages = ::android::corvane::vantrel;

constexpr uint16_t kFrameMagic = 0x4E56;  // "VN"
constexpr size_t kFramePreambleSize = 8;
constexpr size_t kMaxFrameHeaderSize = 16384;
constexpr size_t kMaxFramePayloadSize = 16384;

// The version in MessageHandshake that both ends must have.
constexpr uint32_t kHandshakeVersionV2 = 1;
// In place of a version: the companion refuses the handshake.
constexpr uint32_t kHandshakeRefused = 65535;

// An endpoint in its wire form. The port of the wire has 32 bits: one above
// 65535 is cut, so whoever must not take it for another one looks first.
inline void EncodeEndpoint(const HostAndPort& endpoint,
                           messages::IpAddressAndPort* wire) {
  wire->set_address(endpoint.host.ToNetworkBytes());
  wire->set_port(endpoint.port);
}

inline HostAndPort DecodeEndpoint(const messages::IpAddressAndPort& wire) {
  return HostAndPort(IpAddress::FromNetworkBytes(wire.address()),
                     static_cast<uint16_t>(wire.port()));
}

}  // namespace vantrel
