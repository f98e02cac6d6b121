#pragma once

#include <string>
#include <vector>

namespace vantrel {

constexpr char kResolverFile[] = "/etc/resolv.conf";

// The IPv4 addresses of the name servers in kResolverFile, in its order.
// Without any, |reason| says why in a few words.
std::vector<std::string> ReadNameServers(std::string* reason);

}  // namespace vantrel
