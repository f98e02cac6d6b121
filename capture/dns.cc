#include "capture/dns.h"

#include <stdint.h>

#include <algorithm>

#include "common/byte_order.h"
#include "common/log.h"

namespace vantrel {
namespace {

// A name has at most 127 labels, so no sound packet follows more pointers;
// beyond that a name ends, and a loop of pointers with it.
constexpr int kMaxPointers = 127;
// Far above the 255 bytes of a sound name. Without it thousands of pointers to
// one endless name would make a single datagram cost gigabytes of log.
constexpr size_t kMaxNameBytes = 1024;

// What one packet may log. Far above any answer that people wait for; without
// it one application could fill the log and keep the loop from everybody else.
constexpr uint32_t kMaxLines = 64;
constexpr size_t kMaxLineBytes = 16 * 1024;  // of all lines together
constexpr size_t kLineBytesAroundName = 40;  // at most, in any of the lines

constexpr uint32_t kQuestionTail = 4;  // type, class
constexpr uint32_t kAnswerTail = 10;   // type, class, TTL, data length
constexpr uint32_t kDataLengthOffset = 8;
constexpr uint8_t kPointerBits = 0xC0;

uint8_t ByteAt(const std::string& packet, uint32_t offset) {
  return offset < packet.size() ? GetU8(packet.data() + offset) : 0;
}

// Every byte below |kPointerBits| counts as a label length, also the reserved
// values 0x40 to 0xBF; kept for compatibility.
bool IsLabel(uint8_t length) { return length != 0 && length < kPointerBits; }

// The offset behind the name at |offset|: behind its zero byte or its two-byte
// compression pointer. The end of the packet ends the name.
uint32_t SkipName(const std::string& packet, uint32_t offset) {
  uint8_t length = ByteAt(packet, offset);
  while (IsLabel(length)) {
    offset += 1 + length;
    length = ByteAt(packet, offset);
  }
  return offset + (length == 0 ? 1 : 2);
}

// The name at |offset|. The walk ends once |room| bytes are full.
std::string DecodeName(const std::string& packet, uint32_t offset,
                       int pointers_left, size_t room) {
  std::string name;
  uint8_t length = ByteAt(packet, offset);
  while (IsLabel(length)) {
    if (name.size() >= room) return name;
    if (!name.empty()) name += ".";
    name += packet.substr(std::min<size_t>(offset + 1, packet.size()), length);
    offset += 1 + length;
    length = ByteAt(packet, offset);
  }
  if (length == 0 || offset + 1 >= packet.size()) return name;
  const uint32_t target = (length & 0x3Fu) << 8 | ByteAt(packet, offset + 1);
  if (!name.empty()) name += ".";
  if (pointers_left > 0 && name.size() < room) {
    name += DecodeName(packet, target, pointers_left - 1, room - name.size());
  }
  return name;
}

// Counts the lines of one packet against their bounds, and says at the end how
// many were left out.
class LineBudget {
 public:
  explicit LineBudget(unsigned short id) : id_(id) {}
  LineBudget(const LineBudget&) = delete;
  LineBudget& operator=(const LineBudget&) = delete;
  ~LineBudget() {
    if (left_out_ == 0) return;
    LOGW("[D:%04hx] %u more lines of this packet are left out.", id_,
         left_out_);
  }

  // Whether one more line, with the name at |offset| in it, may be logged;
  // |name| then has that name. Once the answer is no it stays no, at no cost.
  bool Admit(const std::string& packet, uint32_t offset, std::string* name) {
    if (left_out_ == 0 && lines_ < kMaxLines) {
      *name = ExtractName(packet, offset);
      ++lines_;
      bytes_ += kLineBytesAroundName + name->size();
      if (bytes_ <= kMaxLineBytes) return true;
    }
    ++left_out_;
    return false;
  }

 private:
  const unsigned short id_;
  uint32_t lines_ = 0;
  size_t bytes_ = 0;
  uint32_t left_out_ = 0;
};

struct dns_header_t {
  unsigned short id;
  bool is_response;
  uint32_t opcode;
  bool is_truncated;
  uint32_t response_code;
  uint32_t question_count;
  uint32_t answer_count;
};

// |packet| holds at least a header.
dns_header_t ReadHeader(const std::string& packet) {
  const char* p = packet.data();
  const uint8_t flags1 = GetU8(p + 2);
  dns_header_t header;
  header.id = GetBe16(p);
  header.is_response = (flags1 & Dns::kResponseFlag) != 0;
  header.opcode = (flags1 >> 3) & 0x0Fu;
  header.is_truncated = (flags1 & 0x02) != 0;
  header.response_code = GetU8(p + 3) & 0x0Fu;
  header.question_count = GetBe16(p + 4);
  header.answer_count = GetBe16(p + 6);
  return header;
}

void LogAnswers(const dns_header_t& header, const std::string& packet) {
  uint32_t offset = Dns::kHeaderSize;
  for (uint32_t i = 0; i < header.question_count; ++i) {
    offset = SkipName(packet, offset) + kQuestionTail;
  }
  LineBudget budget(header.id);
  for (uint32_t i = 0; i < header.answer_count; ++i) {
    const uint32_t owner = offset;
    offset = SkipName(packet, offset);
    if (offset + kAnswerTail > packet.size()) {
      LOGE("[D:%04hx] Received response with invalid length.", header.id);
      return;
    }
    const char* answer = packet.data() + offset;
    const uint32_t data_length = GetBe16(answer + kDataLengthOffset);
    // Four bytes are logged as an address whatever the record's type.
    if (data_length == 4) {
      // An address that ends with the packet counts as invalid; kept for
      // compatibility.
      if (offset + kAnswerTail + 4 >= packet.size()) {
        LOGE("[D:%04hx] Received response with invalid length.", header.id);
        return;
      }
      const char* a = answer + kAnswerTail;
      std::string name;
      if (budget.Admit(packet, owner, &name)) {
        LOGD("[D:%04hx] Resolved %s to %d.%d.%d.%d.", header.id, name.c_str(),
             GetU8(a), GetU8(a + 1), GetU8(a + 2), GetU8(a + 3));
      }
    }
    offset += kAnswerTail + data_length;
  }
}

// RFC 1035 gives the missing name code 3, not 2. The texts stand beside these
// codes all the same; kept for compatibility.
void LogResult(const dns_header_t& header, const std::string& packet) {
  switch (header.response_code) {
    case 0:
      LogAnswers(header, packet);
      return;
    case 1:
      LOGE("[D:%04hx] The name server was unable to interpret the query.",
           header.id);
      return;
    case 2:
      LOGE("[D:%04hx] The domain name does not exist.", header.id);
      return;
    case 4:
      LOGE(
          "[D:%04hx] The name server does not support the requested kind of "
          "query.",
          header.id);
      return;
    case 5:
      LOGE(
          "[D:%04hx] The name server refuses to perform the specified "
          "operation.",
          header.id);
      return;
    default:
      return;
  }
}

}  // namespace

std::string ExtractName(const std::string& packet, uint32_t& offset) {
  std::string name = DecodeName(packet, offset, kMaxPointers, kMaxNameBytes);
  offset = SkipName(packet, offset);
  return name;
}

void Dns::LogRequest(const HostAndPort& destination,
                     const std::string& packet) {
  if (destination.port != kPort || packet.size() < kHeaderSize) return;
  const dns_header_t header = ReadHeader(packet);
  if (header.is_response) return;
  if (header.is_truncated) {
    LOGW("[D:%04hx] Truncated request packet.", header.id);
    return;
  }
  if (header.opcode != 0) {
    LOGW("[D:%04hx] Unexpected query opcode.", header.id);
    return;
  }
  LineBudget budget(header.id);
  uint32_t offset = kHeaderSize;
  for (uint32_t i = 0; i < header.question_count && offset < packet.size();
       ++i) {
    std::string name;
    if (budget.Admit(packet, offset, &name)) {
      LOGD("[D:%04hx] Look up %s.", header.id, name.c_str());
    }
    offset = SkipName(packet, offset) + kQuestionTail;
  }
}

void Dns::LogResponse(const HostAndPort& source, const std::string& packet) {
  if (source.port != kPort || packet.size() < kHeaderSize) return;
  const dns_header_t header = ReadHeader(packet);
  if (!header.is_response) return;
  if (header.is_truncated) {
    LOGW("[D:%04hx] Truncated response packet.", header.id);
    return;
  }
  LogResult(header, packet);
}

}  // namespace vantrel
