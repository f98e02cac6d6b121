#pragma once

#include <string>

#include "common/link_address.h"
#include "tools/launch/link_connector.h"
#include "tools/launch/shaper.h"
#include "tools/lock_file.h"

namespace vantrel {

// What the command line of vantrel-launch asks for.
struct launch_options_t {
  link_address_t link;
  std::string daemon;           // the program; empty: find it
  std::string protocol = "20";  // the daemon's argument, handed on unchanged
  std::string capture;          // pcapng file; empty: none
  std::string metrics;          // Prometheus text file; empty: none
  std::string status_socket;    // path; empty: none
  std::string lock = kLockFile;
  LinkSecurity security = LinkSecurity::kMedium;
  shape_t shape;
  int stats_every_seconds = 0;  // 0: never
  bool is_direct = false;       // no header, no relay
  bool is_json = false;
  bool is_restarting = false;
  bool makes_network = true;      // what is missing of it
  bool gives_name_server = true;  // to the device's resolver
};

}  // namespace vantrel
