// Feeds frames to the decoder, whole and in small pieces: both must yield the
// same messages.
#include <stdint.h>

#include <algorithm>
#include <string>

#include "fuzz/fuzz_log.h"
#include "fuzz/fuzz_messages.h"
#include "link_v2/message_decoder.h"

namespace vantrel {
namespace {

constexpr size_t kMaxBytes = 256 * 1024;

std::string Decode(const std::string& bytes, size_t piece) {
  MessageDecoder decoder;
  std::string decoded;
  for (size_t at = 0; at < bytes.size();) {
    const size_t wanted =
        std::min({bytes.size() - at, piece, decoder.GetAvailableBufferSpace()});
    if (wanted == 0) break;
    uint32_t consumed;
    decoder.BufferData(bytes.data() + at, static_cast<uint32_t>(wanted),
                       &consumed);
    FUZZ_CHECK(consumed == wanted);
    at += consumed;
    MessageDecoder::message_t message;
    while (decoder.GetAndClearMessage(&message)) {
      decoded += message.header.SerializeAsString() + '|' + message.payload;
    }
  }
  return decoded;
}

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = vantrel::SilenceLog();
  static_cast<void>(silenced);
  vantrel::FuzzInput input(data, size);
  std::string bytes;
  while (!input.IsEmpty() && bytes.size() < vantrel::kMaxBytes) {
    bytes += vantrel::TakeMessage(&input, 20);
  }
  FUZZ_CHECK(vantrel::Decode(bytes, bytes.size()) == vantrel::Decode(bytes, 3));
  return 0;
}
