#pragma once

#include <string>

#include "tools/launch_state.h"

namespace vantrel {

// What the command line of vantrelctl top asks for.
struct top_options_t {
  std::string status_socket = kStatusSocket;
  std::string log;  // the daemon's log file; empty: no streams
  bool is_once = false;
  bool is_json = false;
};

// The exit status for the process. Throws std::exception when there is nothing
// to show, or no terminal to show it on.
int RunTop(const top_options_t& options);

}  // namespace vantrel
