#include "link_v2/message_encoder.h"

#include <array>
#include <sstream>

#include "common/byte_order.h"
#include "common/log.h"

namespace vantrel {
namespace {

constexpr std::array<uint32_t, 256> MakeCrcTable() {
  constexpr uint32_t kReflectedPolynomial = 0x82F63B78;
  std::array<uint32_t, 256> table = {};
  for (uint32_t i = 0; i < table.size(); ++i) {
    uint32_t crc = i;
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc >> 1) ^ ((crc & 1) != 0 ? kReflectedPolynomial : 0);
    }
    table[i] = crc;
  }
  return table;
}

constexpr std::array<uint32_t, 256> kCrcTable = MakeCrcTable();

}  // namespace

messages::MessageHandshake* MessageEncoder::SetAsHandshakeStart() {
  Reset(messages::HANDSHAKE_START);
  return header_.mutable_handshake_start();
}

messages::MessageHandshake* MessageEncoder::SetAsHandshakeDone() {
  Reset(messages::HANDSHAKE_DONE);
  return header_.mutable_handshake_done();
}

messages::MessageTcpConnect* MessageEncoder::SetAsTcpConnect() {
  Reset(messages::TCP_CONNECT);
  return header_.mutable_tcp_connect();
}

messages::MessageTcpClose* MessageEncoder::SetAsTcpClose() {
  Reset(messages::TCP_CLOSE);
  return header_.mutable_tcp_close();
}

messages::MessageTcpWrite* MessageEncoder::SetAsTcpWrite() {
  Reset(messages::TCP_WRITE);
  return header_.mutable_tcp_write();
}

messages::MessageUdpSend* MessageEncoder::SetAsUdpSend() {
  Reset(messages::UDP_SEND);
  return header_.mutable_udp_send();
}

messages::MessagePackageNames* MessageEncoder::SetAsMessagePackageNames() {
  Reset(messages::PACKAGE_NAMES);
  return header_.mutable_package_names();
}

void MessageEncoder::Reset(messages::MessageType type) {
  header_.Clear();
  header_.set_type(type);
}

bool MessageEncoder::Write(WriteBuffer* out, const std::string& payload) {
  std::ostringstream frame;
  if (!WriteHeader(&frame, payload)) return false;
  frame << payload;
  out->Append(frame.str());
  return true;
}

bool MessageEncoder::WriteHeader(std::ostream* out,
                                 const std::string& payload) {
  const auto payload_size = static_cast<unsigned int>(payload.size());
  if (payload_size > kMaxFramePayloadSize) {
    LOGE("[ME] Message payload is too large %u", payload_size);
    return false;
  }
  header_.clear_payload_crc32c();
  if (payload_size > 0) {
    header_.set_payload_crc32c(ComputeCrc32c(payload.data(), payload_size));
  }
  std::string header;
  if (!header_.SerializeToString(&header) ||
      header.size() > kMaxFrameHeaderSize) {
    return false;
  }
  const auto header_size = static_cast<uint16_t>(header.size());
  std::string preamble;
  PutLe16(&preamble, kFrameMagic);
  PutLe16(&preamble, header_size);
  PutLe16(&preamble, static_cast<uint16_t>(payload_size));
  PutLe16(&preamble, ComputeShortCrc32c(header.data(), header_size));
  *out << preamble << header;
  return true;
}

uint32_t MessageEncoder::ComputeCrc32c(const void* data, unsigned int length) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  uint32_t crc = 0xFFFFFFFF;
  for (unsigned int i = 0; i < length; ++i) {
    crc = (crc >> 8) ^ kCrcTable[(crc ^ bytes[i]) & 0xFF];
  }
  return ~crc;
}

uint16_t MessageEncoder::ComputeShortCrc32c(const void* data,
                                            unsigned int length) {
  const uint32_t crc = ComputeCrc32c(data, length);
  return static_cast<uint16_t>(crc ^ (crc >> 16));
}

}  // namespace vantrel
