// For the fuzz targets that play one end of a link: how a script says what that
// end sends.
#pragma once

#include <stdint.h>

#include <string>

#include "common/byte_order.h"
#include "fuzz/fuzz_input.h"
#include "link/v1_wire.h"
#include "link_v2/crc32c.h"
#include "link_v2/frame.h"

namespace vantrel {

// How a message stands in a script: these bits, its head as TakeShort(), and
// with FUZZ_FILLER the length of what follows it as TakeLe16(). So a small
// script reaches the largest messages.
enum : uint8_t {
  FUZZ_FILLER = 1,
  FUZZ_RAW = 2,  // sent as it is; otherwise lengths and checksums are made true
};

// A frame of protocol 20 around the serialized header |head|, sound but for its
// sizes.
inline std::string FuzzFrame(std::string head, const std::string& payload) {
  messages::Header header;
  if (header.ParseFromString(head)) {
    header.clear_payload_crc32c();
    if (!payload.empty()) {
      header.set_payload_crc32c(Crc32c(payload.data(), payload.size()));
    }
    head = header.SerializeAsString();
  }
  const uint32_t crc = Crc32c(head.data(), head.size());
  std::string frame;
  PutLe16(&frame, kFrameMagic);
  PutLe16(&frame, static_cast<uint16_t>(head.size()));
  PutLe16(&frame, static_cast<uint16_t>(payload.size()));
  PutLe16(&frame, static_cast<uint16_t>(crc ^ crc >> 16));
  return frame + head + payload;
}

// A message of protocol 1: |head|, its length field, if there is one, made true
// for |payload|.
inline std::string FuzzV1Message(std::string head, const std::string& payload) {
  const bool is_header =
      !head.empty() && head.size() == v1::GetHeaderSize(GetU8(head.data()));
  if (is_header && !payload.empty()) {
    head.resize(head.size() - 2);
    PutBe16(&head, static_cast<uint16_t>(payload.size()));
  }
  return head + payload;
}

// The next message of the script, in the language of |protocol| (1, 5 or 20).
inline std::string TakeMessage(FuzzInput* input, int protocol) {
  const uint8_t flags = input->TakeU8();
  const std::string head = input->TakeShort();
  const std::string filler((flags & FUZZ_FILLER) != 0 ? input->TakeLe16() : 0,
                           'f');
  if ((flags & FUZZ_RAW) != 0) return head + filler;
  return protocol == 20 ? FuzzFrame(head, filler) : FuzzV1Message(head, filler);
}

}  // namespace vantrel
