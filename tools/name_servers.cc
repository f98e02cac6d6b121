#include "tools/name_servers.h"

#include <errno.h>
#include <string.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

namespace vantrel {

std::vector<std::string> ReadNameServers(std::string* reason) {
  std::vector<std::string> servers;
  std::ifstream file(kResolverFile);
  if (!file) {
    *reason = std::string("cannot be read: ") + strerror(errno);
    std::error_code error;
    const auto target = std::filesystem::read_symlink(kResolverFile, error);
    if (!error) *reason = "leads to " + target.string() + ", which " + *reason;
    return servers;
  }
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string key;
    std::string server;
    words >> key >> server;
    if (key == "nameserver" && server.find(':') == std::string::npos) {
      servers.push_back(server);
    }
  }
  if (servers.empty()) *reason = "names no name server with an IPv4 address";
  return servers;
}

}  // namespace vantrel
