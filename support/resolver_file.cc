#include "support/resolver_file.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <sstream>
#include <string>

namespace vantrel {
namespace {

// None for anything else.
IpAddress ParseAddress(const std::string& text) {
  in_addr v4;
  if (inet_pton(AF_INET, text.c_str(), &v4) == 1) {
    return IpAddress::FromIPv4NetworkBytes(v4.s_addr);
  }
  in6_addr v6;
  if (inet_pton(AF_INET6, text.c_str(), &v6) == 1) {
    return IpAddress::FromIPv6NetworkBytes(&v6);
  }
  return IpAddress();
}

}  // namespace

std::vector<IpAddress> ReadNameServers(std::istream& file) {
  std::vector<IpAddress> servers;
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string key;
    std::string value;
    if (!(words >> key >> value) || key != "nameserver") continue;
    const IpAddress address = ParseAddress(value);
    if (address.GetFamily() != 0) servers.push_back(address);
  }
  return servers;
}

}  // namespace vantrel
