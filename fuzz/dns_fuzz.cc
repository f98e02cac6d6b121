// Feeds datagrams to the DNS log, as a query and as an answer.
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "capture/dns.h"
#include "fuzz/fuzz_log.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool silenced = vantrel::SilenceLog();
  static_cast<void>(silenced);
  const std::string packet(reinterpret_cast<const char*>(data), size);
  vantrel::HostAndPort server;
  server.port = vantrel::Dns::kPort;
  vantrel::Dns::LogRequest(server, packet);
  vantrel::Dns::LogResponse(server, packet);
  return 0;
}
