#pragma once

#include <stdint.h>

#include <string>

#include "link_v2/frame.h"
#include "reactor/write_buffer.h"

namespace vantrel {

// Builds one frame: choose the message with a setter, fill what it returns,
// then Write(). Reusable; a setter clears what was there before.
//
//   MessageEncoder message;
//   message.SetAsTcpClose()->set_stream_id(id);
//   if (!message.Write(&buffer, "")) ...
class MessageEncoder {
 public:
  MessageEncoder() = default;
  // For the types that have no setter because the daemon never sends them.
  explicit MessageEncoder(const messages::Header& header) : header_(header) {}

  // Each returns the sub-message of its type, owned by this encoder.
  messages::MessageHandshake* SetAsHandshakeStart();
  messages::MessageHandshake* SetAsHandshakeDone();
  messages::MessageTcpConnect* SetAsTcpConnect();
  messages::MessageTcpClose* SetAsTcpClose();
  messages::MessageTcpWrite* SetAsTcpWrite();
  messages::MessageUdpSend* SetAsUdpSend();
  messages::MessagePackageNames* SetAsMessagePackageNames();

  messages::MessageType GetMessageType() const { return header_.type(); }

  // Appends the frame, header and |payload|, to |out| as one item. False when
  // either is larger than a frame takes; nothing is appended then.
  [[nodiscard]] bool Write(WriteBuffer* out, const std::string& payload);
  // Appends to |out| the preamble and the header that go before |payload|.
  // False as above; nothing is appended then.
  [[nodiscard]] bool WriteHeader(std::string* out, const std::string& payload);

  // As Crc32c() in link_v2/crc32c.h.
  static uint32_t ComputeCrc32c(const void* data, uint32_t length);
  // The same folded to 16 bits: upper half exclusive-or lower half.
  static uint16_t ComputeShortCrc32c(const void* data, uint32_t length);

 private:
  void Reset(messages::MessageType type);

  messages::Header header_;
};

}  // namespace vantrel
