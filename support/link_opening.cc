#include "support/link_opening.h"

#include <stdio.h>

#include <algorithm>

#include "common/byte_order.h"
#include "common/printable.h"
#include "link/connection_header.h"
#include "link/v1_wire.h"
#include "link_v2/frame.h"
#include "link_v2/message_encoder.h"

namespace vantrel {
namespace {

// A first message that is longer, with very long build information, is not
// looked at.
constexpr size_t kMaxBytes = 1024;
// Of Bluetooth.
constexpr uint8_t kMaxChannel = 30;
// What a person wants to read of another program's words.
constexpr size_t kMaxReasonBytes = 200;
constexpr char kBehindHeader[] = "is it to be started without --header?";

uint16_t Swap(uint16_t value) {
  return static_cast<uint16_t>(value << 8 | value >> 8);
}

uint32_t Swap(uint32_t value) {
  return static_cast<uint32_t>(Swap(static_cast<uint16_t>(value))) << 16 |
         Swap(static_cast<uint16_t>(value >> 16));
}

std::string Hex(std::string_view bytes) {
  std::string text;
  for (const char byte : bytes) {
    char digits[4];
    snprintf(digits, sizeof(digits), " %02X", static_cast<unsigned char>(byte));
    text += digits;
  }
  return text;
}

std::string Quote(const std::string& words) {
  return '"' + ToPrintable(words.substr(0, kMaxReasonBytes)) + '"';
}

}  // namespace

void LinkOpening::Append(std::string_view bytes) {
  if (is_over_) return;
  bytes_.append(bytes.substr(0, kMaxBytes - bytes_.size()));
  Look();
  if (bytes_.size() == kMaxBytes) Finish();
  if (is_over_) std::string().swap(bytes_);
}

void LinkOpening::Look() {
  if (bytes_.empty() || HasFoundProtocol()) return;
  if (MayBeConnectionHeader()) {
    if (bytes_.size() < kConnectionHeaderSize) return;
    return Fail(std::string("sends a connection header, which has no place "
                            "here; ") +
                kBehindHeader);
  }
  switch (protocol_) {
    case kAnyProtocol:
      return Fail("begins with" + Hex(std::string_view(bytes_).substr(0, 1)) +
                  ", with which no protocol begins");
    case 20:
      return LookAtFrame();
    default:
      return LookAtV1();
  }
}

// In the wrong byte order the magic number is still that of a frame. A first
// message may look like a connection header as far as it goes, and nothing need
// follow.
bool LinkOpening::HasFoundProtocol() {
  if (protocol_ != kAnyProtocol) return false;
  const uint8_t type = GetByte(0);
  const uint8_t handshake =
      sender_ == Sender::kDevice ? TYPE_HANDSHAKE : TYPE_HANDSHAKE_ACK;
  if (type == (kFrameMagic & 0xFF) || type == kFrameMagic >> 8) {
    protocol_ = 20;
  } else if (IsV1Type(type)) {
    protocol_ = type == handshake ? 5 : 1;
  } else {
    return false;
  }
  Finish();
  return true;
}

bool LinkOpening::MayBeConnectionHeader() const {
  const auto is_zero = [this](size_t begin, size_t end) {
    for (size_t at = begin; at < std::min(end, bytes_.size()); ++at) {
      if (GetByte(at) != 0) return false;
    }
    return true;
  };
  // Channel, unused, behind the address unused and the status.
  return GetByte(0) <= kMaxChannel && is_zero(1, 6) && is_zero(12, 20);
}

void LinkOpening::LookAtFrame() {
  if (IsV1Type(GetByte(0))) {
    const uint8_t handshake =
        sender_ == Sender::kDevice ? TYPE_HANDSHAKE : TYPE_HANDSHAKE_ACK;
    return FailAsOther(GetByte(0) == handshake ? "5" : "1");
  }
  if (bytes_.size() < sizeof(kFrameMagic)) return;
  const uint16_t magic = GetLe16(bytes_.data());
  if (magic == Swap(kFrameMagic)) {
    return Fail("sends the magic number of its first frame big-endian");
  }
  if (magic != kFrameMagic) {
    return Fail("begins with" + Hex(std::string_view(bytes_).substr(0, 2)) +
                ", which is no frame of protocol 20");
  }
  if (bytes_.size() >= kFramePreambleSize) LookAtSizes();
}

// The shorter reading first: what is found must not depend on how many bytes
// came at once.
void LinkOpening::LookAtSizes() {
  const uint16_t size = GetLe16(bytes_.data() + 2);
  const uint16_t swapped = Swap(size);
  const size_t rest = bytes_.size() - kFramePreambleSize;
  if (swapped < size && swapped <= kMaxBytes - kFramePreambleSize) {
    if (rest < swapped) return;
    const uint16_t checksum = GetLe16(bytes_.data() + 6);
    const uint16_t computed = ComputeChecksum(swapped);
    if (computed == checksum || computed == Swap(checksum)) {
      return Fail("sends the sizes of its first frame big-endian");
    }
  }
  if (size > kMaxFrameHeaderSize) {
    return Fail("announces a first header of " + std::to_string(size) +
                " bytes, which is too long; are its sizes big-endian?");
  }
  if (size <= rest) LookAtChecksum(size);
}

void LinkOpening::LookAtChecksum(size_t header_size) {
  const uint16_t checksum = GetLe16(bytes_.data() + 6);
  const uint16_t computed = ComputeChecksum(header_size);
  if (computed == checksum) return LookAtHeader(header_size);
  if (computed == Swap(checksum)) {
    return Fail("sends the checksum of its first header big-endian");
  }
  char text[160];
  snprintf(text, sizeof(text),
           "sends 0x%04X as checksum of its first header; the CRC-32C of those "
           "%zu bytes, its upper half exclusive-or its lower half, is 0x%04X",
           checksum, header_size, computed);
  Fail(text);
}

uint16_t LinkOpening::ComputeChecksum(size_t header_size) const {
  return MessageEncoder::ComputeShortCrc32c(bytes_.data() + kFramePreambleSize,
                                            static_cast<uint32_t>(header_size));
}

void LinkOpening::LookAtHeader(size_t header_size) {
  Finish();
  messages::Header header;
  const bool is_parsed = header.ParseFromArray(
      bytes_.data() + kFramePreambleSize, static_cast<int>(header_size));
  if (!is_parsed) return Fail("sends a first header that cannot be parsed");
  if (sender_ == Sender::kDevice) return;
  if (header.type() == messages::TEARDOWN) {
    return Fail("ends the link: " + Quote(header.teardown().reason()));
  }
  if (header.type() != messages::HANDSHAKE_ACK) return;
  const uint32_t version = header.handshake_ack().version();
  if (version == kHandshakeRefused) {
    Fail("refuses the handshake: " + Quote(header.handshake_ack().error()));
  } else if (version != kHandshakeVersionV2) {
    Fail("acknowledges version " + std::to_string(version) +
         " of the handshake, not " + std::to_string(kHandshakeVersionV2));
  }
}

bool LinkOpening::IsV1Type(uint8_t type) const {
  return sender_ == Sender::kDevice ? v1::IsFromDaemon(type)
                                    : v1::IsFromCompanion(type);
}

void LinkOpening::LookAtV1() {
  const uint8_t type = GetByte(0);
  if (type == (kFrameMagic & 0xFF)) return FailAsOther("20");
  if (!IsV1Type(type)) {
    return Fail("begins with" + Hex(std::string_view(bytes_).substr(0, 1)) +
                ", which is no message of protocol " +
                std::to_string(protocol_));
  }
  const bool has_version = type == TYPE_HANDSHAKE || type == TYPE_HANDSHAKE_ACK;
  if (!has_version) return Finish();
  if (bytes_.size() < v1::GetHeaderSize(type)) return;
  Finish();
  const uint32_t version = v1::GetVersion(bytes_.data());
  if (protocol_ == 1) {
    FailAsOther("5");
  } else if (version == Swap(v1::kHandshakeVersion)) {
    Fail("sends the version of its handshake little-endian");
  } else if (version != v1::kHandshakeVersion) {
    Fail("sends version " + std::to_string(version) +
         " in its handshake, not " + std::to_string(v1::kHandshakeVersion));
  }
}

std::string LinkOpening::GetFaultOfSilence() const {
  if (is_over_ || bytes_.empty()) return "";
  std::string what =
      "has sent only" + Hex(std::string_view(bytes_).substr(0, 8));
  if (protocol_ == 20 && bytes_.size() >= kFramePreambleSize) {
    what = "announces a first header of " +
           std::to_string(GetLe16(bytes_.data() + 2)) + " bytes and has sent " +
           std::to_string(bytes_.size() - kFramePreambleSize) +
           "; are its sizes big-endian?";
  }
  return Name(what);
}

std::string LinkOpening::Name(const std::string& what) const {
  return (sender_ == Sender::kDevice ? "the device " : "the companion ") + what;
}

void LinkOpening::FailAsOther(const std::string& protocol) {
  is_other_protocol_ = true;
  Fail("speaks protocol " + protocol);
}

void LinkOpening::Fail(const std::string& what) {
  Finish();
  fault_ = Name(what);
}

}  // namespace vantrel
