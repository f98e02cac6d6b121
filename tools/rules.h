#pragma once

#include <string>
#include <vector>

namespace vantrel {

// Takes away the interception rules with the daemon's own code, in a child
// whose output goes nowhere. Waits for it; whether rules are left is for
// ListRules() to tell.
void RemoveRules();

// The interception rules that are there, each as "TABLE: RULE"; empty when
// there are none. Throws std::runtime_error when the tables cannot be read.
std::vector<std::string> ListRules();

}  // namespace vantrel
