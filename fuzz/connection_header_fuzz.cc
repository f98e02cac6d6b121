// A link's first bytes: the header is taken when it is whole and reports a
// connection, and nothing behind it is.
#include "fuzz/fuzz_input.h"
#include "fuzz/fuzz_log.h"
#include "link/connection_header.h"
#include "reactor/reactor_testing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  static const bool silenced = SilenceLog();
  static_cast<void>(silenced);
  const std::string bytes = FuzzInput(data, size).TakeBytes(1024);
  auto [fd, peer] = MakeSocketPair();
  const Socket link(fd);
  peer->Write(bytes.data(), bytes.size());
  peer.reset();
  connection_header_t header;
  const bool is_good = ReceiveConnectionHeader(link, &header);
  FUZZ_CHECK(is_good == (bytes.size() >= kConnectionHeaderSize &&
                         GetLe32(bytes.data() + 16) == 0));
  if (!is_good) return 0;
  FUZZ_CHECK(ReadAll(link) == bytes.substr(kConnectionHeaderSize));
  std::string encoded = EncodeConnectionHeader(header);
  encoded.replace(4, 2, bytes, 4, 2);  // what is unused is not kept
  encoded.replace(12, 4, bytes, 12, 4);
  FUZZ_CHECK(encoded == bytes.substr(0, kConnectionHeaderSize));
  return 0;
}
