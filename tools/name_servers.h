#pragma once

#include <string>
#include <vector>

namespace vantrel {

// The IPv4 addresses of the name servers in kResolverFile, in its order.
// Without any, |reason| says why in a few words.
std::vector<std::string> FindNameServers(std::string* reason);

}  // namespace vantrel
