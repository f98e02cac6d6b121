#pragma once

#include <string>

#include "tools/lock_file.h"

namespace vantrel {

// What the command line of vantrelctl doctor asks for.
struct doctor_options_t {
  std::string lock = kLockFile;
  std::string status_socket;         // empty: that of the launcher that runs
  std::string log;                   // of the daemon; empty: the launcher's
  std::string link;                  // empty: that of the launcher that runs
  std::string host = "example.com";  // a name that has a web server
  std::string port = "80";
  bool is_json = false;
};

// Goes through all that a tunnel needs, in order, and prints a line for each.
// Changes nothing. 0 when all held, 1 otherwise.
int RunDoctor(const doctor_options_t& options);

}  // namespace vantrel
