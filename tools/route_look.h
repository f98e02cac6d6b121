#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <string>
#include <vector>

namespace vantrel {

// What is wrong with a route, in words for a person, and the command that mends
// it. Both are empty when nothing is; the second also where none does.
struct route_fault_t {
  std::string text;
  std::string command;
};

// One look at the way that the traffic of applications takes: the rules have
// only what leaves through lo, and answers go to kApplicationAddress. Nothing
// is wrong when the kernel does not tell.
route_fault_t FindFaultOfRoute();

// Whether an IPv4 address, in text, is reached over the daemon. False also for
// what is none and for addresses of the machine itself.
bool LeadsToDaemon(const std::string& address);

// The interfaces of the default routes of the main table, which comes before
// the daemon's route; and of the default routes of IPv6, of which the daemon
// carries nothing.
std::vector<std::string> FindDefaultRoutes();
std::vector<std::string> FindDefaultRoutesOfIpv6();

// Whether |process| has the same network as we. True also when nobody tells.
bool HasOurNetwork(pid_t process);

}  // namespace vantrel
