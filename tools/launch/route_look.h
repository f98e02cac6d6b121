#pragma once

#include <sys/types.h>

#include <string>

namespace vantrel {

// One look at the way that the traffic of applications takes: the rules have
// only what leaves through lo, and answers go to kApplicationAddress. What is
// wrong, in words for a person; empty when nothing is, or when the kernel does
// not tell, or when the process |daemon| has another network than we.
std::string FindFaultOfRoute(pid_t daemon);

}  // namespace vantrel
