#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "common/host_and_port.h"
#include "common/link_address.h"
#include "companion/companion_log.h"
#include "companion/destination_policy.h"
#include "companion/destinations.h"
#include "companion/link_listener.h"
#include "companion/rules_check.h"
#include "companion/rules_settings.h"
#include "support/link_opening.h"

namespace vantrel {

// The network that the companion says it uses.
struct active_network_t {
  int32_t id = 0;
  bool is_metered = false;
};

// What the command line asked for.
struct companion_options_t {
  int protocol = LinkOpening::kAnyProtocol;
  // Either of these two.
  std::vector<link_address_t> listen;
  std::optional<int> fd;
  // Nobody has asked for |listen|: it is what a companion usually needs. A
  // machine without Bluetooth is no failure then.
  bool listens_by_default = false;
  size_t max_links = 64;
  bool allows_remote_links = false;
  LinkSecurity security = LinkSecurity::kMedium;
  bool send_header = false;
  uint16_t max_tx_size = 0;
  std::vector<DestinationPolicy::rule_t> destination_rules;  // in their order
  // What may wait for the remotes of one link.
  size_t max_held_bytes = 8 << 20;
  std::optional<active_network_t> network;
  look_ups_t look_ups;
  rules_settings_t rules;
  std::optional<rules_check_t> rules_check;  // instead of serving links
  // For those who want figures; empty, or none: not asked for.
  std::string status_socket;
  std::string metrics;
  std::optional<link_address_t> metrics_listen;
  std::string build_info;
  LogLevel log_level = LogLevel::kInfo;
  bool log_as_json = false;
};

// Fills |options|. A value is the exit status of a program that has nothing
// to do: 0 after --help or --version on |out|, 2 after one line on |err|
// about a wrong command line.
[[nodiscard]] std::optional<int> ParseOptions(int argc, const char* const* argv,
                                              companion_options_t* options,
                                              std::ostream& out,
                                              std::ostream& err);

}  // namespace vantrel
