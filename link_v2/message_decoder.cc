#include "link_v2/message_decoder.h"

#include <assert.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>

#include "common/byte_order.h"
#include "common/log.h"
#include "link_v2/message_encoder.h"

namespace vantrel {

size_t MessageDecoder::GetAvailableBufferSpace() const {
  return skip_ + buffer_.size() - held_;
}

void MessageDecoder::BufferData(const void* data, uint32_t length,
                                uint32_t* consumed) {
  const uint32_t skipped = std::min(skip_, length);
  skip_ -= skipped;
  const size_t kept =
      std::min<size_t>(length - skipped, buffer_.size() - held_);
  memcpy(GetRoom(kept), static_cast<const char*>(data) + skipped, kept);
  held_ += kept;
  *consumed = skipped + static_cast<uint32_t>(kept);
}

char* MessageDecoder::GetRoom(size_t size) {
  assert(held_ + size <= buffer_.size());
  if (begin_ + held_ + size > buffer_.size()) {
    memmove(buffer_.data(), Front(), held_);
    begin_ = 0;
  }
  return buffer_.data() + begin_ + held_;
}

void MessageDecoder::OnFilled(size_t count) {
  assert(begin_ + held_ + count <= buffer_.size());
  const auto skipped = static_cast<uint32_t>(std::min<size_t>(skip_, count));
  skip_ -= skipped;
  held_ += count;
  DiscardFront(skipped);
}

bool MessageDecoder::GetAndClearMessage(message_t* out) {
  while (state_ != State::kComplete) {
    const bool advanced = (state_ == State::kPreamble && ParsePreamble()) ||
                          (state_ == State::kHeader && ParseHeader()) ||
                          (state_ == State::kPayload && ParsePayload());
    if (!advanced) return false;
  }
  out->header.Swap(&header_);
  out->payload.assign(Front(), payload_size_);
  DiscardFront(payload_size_);
  state_ = State::kPreamble;
  return true;
}

bool MessageDecoder::ParsePreamble() {
  if (held_ < kFramePreambleSize) return false;
  magic_ = GetLe16(Front());
  header_size_ = GetLe16(Front() + 2);
  payload_size_ = GetLe16(Front() + 4);
  header_checksum_ = GetLe16(Front() + 6);
  DiscardFront(kFramePreambleSize);
  if (magic_ != kFrameMagic) {
    state_ = State::kError;
    ReportError("Wrong magic", magic_, 0);
    return false;
  }
  if (header_size_ > kMaxFrameHeaderSize) {
    ReportError("Header too large", header_size_, header_size_ + payload_size_);
    return true;
  }
  state_ = State::kHeader;
  return true;
}

bool MessageDecoder::ParseHeader() {
  if (held_ < header_size_) return false;
  const uint32_t rest = header_size_ + payload_size_;
  if (MessageEncoder::ComputeShortCrc32c(Front(), header_size_) !=
      header_checksum_) {
    ReportError("Header checksum incorrect", header_size_, rest);
    return true;
  }
  header_.Clear();
  if (!header_.ParseFromArray(Front(), header_size_)) {
    ReportError("Unable to parse header", header_size_, rest);
    return true;
  }
  DiscardFront(header_size_);
  if (payload_size_ > kMaxFramePayloadSize) {
    ReportError("Payload too large", payload_size_, payload_size_);
    return true;
  }
  state_ = payload_size_ == 0 ? State::kComplete : State::kPayload;
  return true;
}

bool MessageDecoder::ParsePayload() {
  if (held_ < payload_size_) return false;
  if (MessageEncoder::ComputeCrc32c(Front(), payload_size_) !=
      header_.payload_crc32c()) {
    ReportError("Payload checksum incorrect", payload_size_, payload_size_);
    return true;
  }
  state_ = State::kComplete;
  return true;
}

void MessageDecoder::ReportError(const char* what, uint32_t param,
                                 uint32_t skip) {
  LOGW("[MD] Error decoding: '%s', param=%u", what, param);
  const size_t buffered = std::min<size_t>(skip, held_);
  DiscardFront(buffered);
  skip_ += skip - static_cast<uint32_t>(buffered);
  if (state_ != State::kError) state_ = State::kPreamble;
}

void MessageDecoder::DiscardFront(size_t count) {
  assert(count <= held_);
  held_ -= count;
  begin_ = held_ == 0 ? 0 : begin_ + count;
}

}  // namespace vantrel
