#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <string>

#include "link_v2/frame.h"

namespace vantrel {

// Reassembles frames from read chunks of any size, checks them and hands out
// one message at a time:
//
//   read at most GetAvailableBufferSpace() bytes; BufferData(...);
//   while (decoder.GetAndClearMessage(&message)) ...
//
// or, without a copy, reads them into GetRoom() and tells OnFilled().
//
// A damaged frame is logged and skipped by the sizes it announced. A wrong
// magic means that the place of the next frame is lost: the decoder then
// yields no message ever again, on purpose, and its buffer fills up until
// GetAvailableBufferSpace() is 0.
class MessageDecoder {
 public:
  struct message_t {
    messages::Header header;
    std::string payload;  // empty when the frame has none
  };

  // How many bytes BufferData() takes now without dropping one.
  size_t GetAvailableBufferSpace() const;
  // Takes |length| bytes of the stream; |*consumed| receives how many were
  // skipped or buffered, which is all of them within the space available.
  void BufferData(const void* data, uint32_t length, uint32_t* consumed);
  // Where the next |size| bytes of the stream are to be put, as many as there
  // is space for and the buffer has; the place is good until the next call.
  char* GetRoom(size_t size);
  // |count| bytes were put there.
  void OnFilled(size_t count);
  // Moves the next whole message into |out|, whatever that held. False while
  // more bytes are needed.
  [[nodiscard]] bool GetAndClearMessage(message_t* out);
  // Whether the stream is lost for good (wrong magic).
  bool HasFailed() const { return state_ == State::kError; }

 private:
  enum class State { kPreamble, kHeader, kPayload, kComplete, kError };

  // Each advances one step; false when it needs more bytes or has failed.
  bool ParsePreamble();
  bool ParseHeader();
  bool ParsePayload();
  // Rejects the frame under way: logs, and skips |skip| bytes of the stream.
  void ReportError(const char* what, uint32_t param, uint32_t skip);
  void DiscardFront(size_t count);
  // The bytes that are held, |held_| of them.
  const char* Front() const { return buffer_.data() + begin_; }

  State state_ = State::kPreamble;
  // The preamble of the frame under way.
  uint16_t magic_ = 0;
  uint16_t header_size_ = 0;
  uint16_t payload_size_ = 0;
  uint16_t header_checksum_ = 0;
  messages::Header header_;
  // Bytes of a rejected frame that are still to come; none is held then.
  uint32_t skip_ = 0;
  // Bytes move to the front of the buffer only when the room behind them is
  // used up.
  std::array<char, kMaxFramePayloadSize> buffer_;
  size_t begin_ = 0;
  size_t held_ = 0;  // bytes in |buffer_|, from |begin_| on
};

}  // namespace vantrel
