// Plays a device to the companion, in the protocol that the first byte chooses:
// the same events must come out however the bytes are cut.
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <algorithm>
#include <memory>
#include <string>

#include "companion/protocol_v1.h"
#include "companion/protocol_v2.h"
#include "fuzz/fuzz_log.h"

namespace vantrel {
namespace {

std::unique_ptr<LinkProtocol> MakeProtocol(uint8_t choice) {
  if (choice % 3 == 0) return std::make_unique<ProtocolV2>("");
  return std::make_unique<ProtocolV1>(choice % 3 == 1 ? 1 : 5);
}

std::string Describe(const LinkEvent& event) {
  return std::to_string(static_cast<int>(event.type)) + " " +
         std::to_string(event.stream_id) + " " + std::to_string(event.uid) +
         event.local.ToString() + event.remote.ToString() + event.text +
         event.bytes + "\n";
}

std::string Play(uint8_t choice, const char* data, size_t size, size_t piece) {
  const std::unique_ptr<LinkProtocol> protocol = MakeProtocol(choice);
  std::string seen;
  while (size > 0) {
    const size_t fed = std::min({size, piece, protocol->GetAvailableSpace()});
    if (fed == 0) abort();  // all events are taken, so there must be space
    protocol->Feed(data, fed);
    data += fed;
    size -= fed;
    LinkEvent event;
    while (protocol->GetNextEvent(&event)) {
      seen += Describe(event);
      if (event.type == LinkEvent::Type::kFatal) return seen;
    }
  }
  return seen;
}

}  // namespace
}  // namespace vantrel

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = vantrel::SilenceLog();
  static_cast<void>(silenced);
  if (size < 2) return 0;
  const char* const bytes = reinterpret_cast<const char*>(data + 1);
  if (vantrel::Play(data[0], bytes, size - 1, size) !=
      vantrel::Play(data[0], bytes, size - 1, 3)) {
    abort();
  }
  return 0;
}
