// Feeds a byte stream to the frame decoder, whole and in small pieces: both
// must yield the same messages.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <string>

#include "fuzz/fuzz_log.h"
#include "link_v2/message_decoder.h"

namespace {

std::string Decode(const uint8_t* data, size_t size, size_t piece) {
  vantrel::MessageDecoder decoder;
  std::string decoded;
  while (size > 0) {
    const size_t wanted =
        std::min({size, piece, decoder.GetAvailableBufferSpace()});
    if (wanted == 0) break;
    unsigned int consumed;
    decoder.BufferData(data, static_cast<unsigned int>(wanted), &consumed);
    if (consumed != wanted) abort();
    data += consumed;
    size -= consumed;
    vantrel::MessageDecoder::Message message;
    while (decoder.GetAndClearMessage(&message)) {
      decoded += message.header.SerializeAsString() + '|' + message.payload;
    }
  }
  return decoded;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = vantrel::SilenceLog();
  static_cast<void>(silenced);
  if (Decode(data, size, size) != Decode(data, size, 3)) abort();
  return 0;
}
