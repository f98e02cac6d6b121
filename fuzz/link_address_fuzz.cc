// Link addresses of a command line, for both sides.
#include "common/link_address.h"
#include "fuzz/fuzz_input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vantrel;
  const std::string text = FuzzInput(data, size).TakeRest();
  for (const LinkSide side : {LinkSide::kConnect, LinkSide::kListen}) {
    std::string reason;
    const auto address = ParseLinkAddress(text, side, &reason);
    FUZZ_CHECK(address.has_value() == reason.empty());
    if (!address) continue;
    FUZZ_CHECK(address->text == text);
    if (address->kind == link_address_t::Kind::kUnix) {
      sockaddr_un socket_address;
      FUZZ_CHECK(ToSocketAddress(address->path, &socket_address) <=
                 sizeof(socket_address));
    }
    if (address->kind == link_address_t::Kind::kTcp) {
      const int port = std::stoi(address->port);
      FUZZ_CHECK(port >= 0 && port <= 65535 && !address->host.empty());
    }
    if (address->kind == link_address_t::Kind::kRfcomm) {
      FUZZ_CHECK(address->channel >= 1 && address->channel <= 30);
      FUZZ_CHECK(address->bluetooth.has_value() ==
                 (side == LinkSide::kConnect));
    }
    FUZZ_CHECK(address->kind != link_address_t::Kind::kFd || address->fd >= 0);
  }
  return 0;
}
