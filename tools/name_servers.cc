#include "tools/name_servers.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "support/resolver_file.h"

namespace vantrel {

std::vector<std::string> FindNameServers(std::string* reason) {
  std::vector<std::string> servers;
  std::ifstream file(kResolverFile);
  if (!file) {
    *reason = std::string("cannot be read: ") + strerror(errno);
    std::error_code error;
    const auto target = std::filesystem::read_symlink(kResolverFile, error);
    if (!error) *reason = "leads to " + target.string() + ", which " + *reason;
    return servers;
  }
  for (const IpAddress& address : ReadNameServers(file)) {
    if (address.GetFamily() == AF_INET) servers.push_back(address.ToString());
  }
  if (servers.empty()) *reason = "names no name server with an IPv4 address";
  return servers;
}

}  // namespace vantrel
