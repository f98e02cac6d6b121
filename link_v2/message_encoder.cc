#include "link_v2/message_encoder.h"

#include <stdint.h>

#include <utility>

#include "common/byte_order.h"
#include "common/log.h"
#include "link_v2/crc32c.h"

namespace vantrel {
namespace {

// What the daemon's headers take at most, but for package names.
constexpr size_t kUsualHeaderSize = 64;

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
  std::string frame;
  frame.reserve(kFramePreambleSize + kUsualHeaderSize + payload.size());
  if (!WriteHeader(&frame, payload)) return false;
  frame += payload;
  out->Append(std::move(frame));
  return true;
}

bool MessageEncoder::WriteHeader(std::string* out, const std::string& payload) {
  const auto payload_size = static_cast<uint32_t>(payload.size());
  if (payload_size > kMaxFramePayloadSize) {
    LOGE("[ME] Message payload is too large %u", payload_size);
    return false;
  }
  header_.clear_payload_crc32c();
  if (payload_size > 0) {
    header_.set_payload_crc32c(ComputeCrc32c(payload.data(), payload_size));
  }
  const size_t header_size = header_.ByteSizeLong();
  if (header_size > kMaxFrameHeaderSize) return false;
  std::string header(header_size, '\0');
  if (!header_.SerializeToArray(&header[0], static_cast<int>(header_size))) {
    return false;
  }
  PutLe16(out, kFrameMagic);
  PutLe16(out, static_cast<uint16_t>(header_size));
  PutLe16(out, static_cast<uint16_t>(payload_size));
  PutLe16(out, ComputeShortCrc32c(header.data(),
                                  static_cast<uint32_t>(header_size)));
  *out += header;
  return true;
}

uint32_t MessageEncoder::ComputeCrc32c(const void* data, uint32_t length) {
  return Crc32c(data, length);
}

uint16_t MessageEncoder::ComputeShortCrc32c(const void* data, uint32_t length) {
  const uint32_t crc = ComputeCrc32c(data, length);
  return static_cast<uint16_t>(crc ^ (crc >> 16));
}

}  // namespace vantrel
