#pragma once

#include <stdint.h>

#include <optional>
#include <ostream>
#include <string>

#include "common/host_and_port.h"
#include "companion/link_listener.h"

namespace vantrel {

// The network that the companion says it uses.
struct ActiveNetwork {
  int32_t id = 0;
  bool is_metered = false;
};

// What the command line asked for.
struct Options {
  int protocol = 20;
  // Exactly one of these two.
  std::optional<LinkAddress> listen;
  std::optional<int> fd;
  bool send_header = false;
  uint16_t max_tx_size = 0;
  std::optional<ActiveNetwork> network;
  std::optional<HostAndPort> dns_server;
  std::string build_info;
  bool verbose = false;
};

// Fills |options|. A value is the exit status of a program that has nothing
// to do: 0 after --help or --version on |out|, 2 after one line on |err|
// about a wrong command line.
[[nodiscard]] std::optional<int> ParseOptions(int argc, const char* const* argv,
                                              Options* options,
                                              std::ostream& out,
                                              std::ostream& err);

}  // namespace vantrel
