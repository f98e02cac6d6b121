#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

namespace vantrel {

// The wire bytes of one complete outgoing message and the UID that they are
// charged to. Copies what it is given.
class PacketBytes {
 public:
  // Charged to nobody: control messages.
  static constexpr uint32_t kNobody = 0xFFFFFFFF;

  PacketBytes(const void* header, size_t header_length, uint32_t uid = kNobody)
      : bytes_(static_cast<const char*>(header), header_length), uid_(uid) {}
  PacketBytes(const void* header, size_t header_length,
              const std::string& payload, uint32_t uid = kNobody)
      : PacketBytes(header, header_length, uid) {
    bytes_ += payload;
  }

  const char* AsBytes() const { return bytes_.data(); }
  size_t Length() const { return bytes_.size(); }
  bool Empty() const { return bytes_.empty(); }
  uint32_t Uid() const { return uid_; }

 private:
  std::string bytes_;
  uint32_t uid_;
};

}  // namespace vantrel
