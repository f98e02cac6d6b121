#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <utility>

#include "common/uid.h"

namespace vantrel {

// The wire bytes of one complete outgoing message and the UID that they are
// charged to. Copies what it is given.
class PacketBytes {
 public:
  // Charged to nobody: control messages.
  static constexpr uint32_t kNobody = kNobodyUid;

  explicit PacketBytes(const std::string& header, uint32_t uid = kNobody)
      : bytes_(header), uid_(uid) {}
  PacketBytes(const std::string& header, const std::string& payload,
              uint32_t uid = kNobody)
      : uid_(uid) {
    bytes_.reserve(header.size() + payload.size());
    bytes_.append(header).append(payload);
  }

  const char* AsBytes() const { return bytes_.data(); }
  size_t Length() const { return bytes_.size(); }
  bool Empty() const { return bytes_.empty(); }
  uint32_t Uid() const { return uid_; }

  // The bytes themselves; nothing is left here.
  std::string TakeBytes() { return std::move(bytes_); }

 private:
  std::string bytes_;
  uint32_t uid_;
};

}  // namespace vantrel
