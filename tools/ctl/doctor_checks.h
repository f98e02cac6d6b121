#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/link_address.h"
#include "tools/ctl/log_follower.h"
#include "tools/launch_state.h"

namespace vantrel {

// What one check has found.
struct finding_t {
  enum class State {
    kHeld,
    kBroken,
    kUnknown,  // it could not be looked at, or not yet
  };

  State state = State::kHeld;
  std::string text;     // for a person, in one line
  std::string command;  // what mends it; empty: nothing, or no single command
};

finding_t Held(const std::string& text);
finding_t Broken(const std::string& text, const std::string& command);
finding_t Unknown(const std::string& text);

// What is known of the device while it is gone through, and what one check
// leaves to those behind it.
struct examination_t {
  std::string lock;  // its file
  std::string host;  // a name to look up; has a web server
  std::string port;  // of that

  // Of a launcher that runs; none is 0 and empty.
  pid_t launcher = 0;
  pid_t daemon = 0;
  std::string protocol;
  std::optional<launch_state_t> state;  // where it tells
  std::string log;                      // the daemon's

  std::optional<link_address_t> link;  // the launcher's or the command line's
  std::string address;                 // of |host|, once it was looked up
  std::string endpoint;                // that a connection was made to
  std::unique_ptr<LogFollower> log_follower;  // from before that connection
};

// Whether a daemon runs.
bool HasTunnel(const examination_t& examination);

// One check: looks, and changes nothing.
struct check_t {
  const char* name;
  finding_t (*look)(examination_t* examination);
};

// In the order in which a device needs them.
std::vector<check_t> GetDeviceChecks();
std::vector<check_t> GetLinkChecks();
std::vector<check_t> GetTunnelChecks();

}  // namespace vantrel
