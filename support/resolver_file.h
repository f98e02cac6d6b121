#pragma once

#include <istream>
#include <vector>

#include "common/ip_address.h"

namespace vantrel {

// Where a machine names its name servers.
constexpr char kResolverFile[] = "/etc/resolv.conf";

// The name servers that |file| lists (resolv.conf(5)), in its order. One that
// is no address, or that needs an interface ("fe80::1%eth0"), is left out.
std::vector<IpAddress> ReadNameServers(std::istream& file);

}  // namespace vantrel
