#include "tools/route_look.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <net/route.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <fstream>
#include <iterator>
#include <sstream>

#include "common/interception.h"
#include "common/unique_fd.h"
#include "support/route_request.h"

namespace vantrel {
namespace {

// No network has it (RFC 5737), so only a default route leads there.
constexpr char kSomewhere[] = "192.0.2.1";

struct route_t {
  int error = 0;           // there is none
  unsigned char type = 0;  // RTN_LOCAL, RTN_UNICAST, ...
  uint32_t interface = 0;
  uint32_t source = 0;  // network byte order; 0: none
};

uint32_t GetValue(const rtattr* attribute) {
  uint32_t value = 0;
  if (RTA_PAYLOAD(attribute) == sizeof(value)) {
    memcpy(&value, RTA_DATA(attribute), sizeof(value));
  }
  return value;
}

route_t ReadRoute(const nlmsghdr* header) {
  route_t found;
  const auto* const route = static_cast<const rtmsg*>(NLMSG_DATA(header));
  found.type = route->rtm_type;
  auto length = RTM_PAYLOAD(header);
  for (const rtattr* attribute = RTM_RTA(route); RTA_OK(attribute, length);
       attribute = RTA_NEXT(attribute, length)) {
    if (attribute->rta_type == RTA_OIF) found.interface = GetValue(attribute);
    if (attribute->rta_type == RTA_PREFSRC) found.source = GetValue(attribute);
  }
  return found;
}

// |destination| is in network byte order. False when the kernel cannot be
// asked.
[[nodiscard]] bool FindRoute(uint32_t destination, route_t* route) {
  const UniqueFd fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  const route_request_t request = MakeRouteRequest(destination, /*sequence=*/1);
  if (send(fd.Get(), &request, sizeof(request), 0) < 0) return false;
  // The answer is there when the question was taken.
  alignas(nlmsghdr) char bytes[4096];
  const ssize_t count = recv(fd.Get(), bytes, sizeof(bytes), MSG_DONTWAIT);
  const auto* const header = reinterpret_cast<const nlmsghdr*>(bytes);
  if (count < 0 || !NLMSG_OK(header, static_cast<size_t>(count))) return false;
  if (header->nlmsg_type == NLMSG_ERROR) {
    const auto* const error = static_cast<const nlmsgerr*>(NLMSG_DATA(header));
    route->error = -error->error;
  } else {
    *route = ReadRoute(header);
  }
  return true;
}

// The columns of each row of |table|, without its heading's.
std::vector<std::vector<std::string>> ReadTable(const char* table) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream file(table);
  for (std::string line; std::getline(file, line);) {
    std::istringstream row(line);
    rows.emplace_back(std::istream_iterator<std::string>(row),
                      std::istream_iterator<std::string>());
  }
  return rows;
}

unsigned long ParseHex(const std::string& text) {
  return strtoul(text.c_str(), nullptr, 16);
}

// Up, and not there to refuse.
bool IsUsable(const std::string& flags) {
  return (ParseHex(flags) & (RTF_UP | RTF_REJECT)) == RTF_UP;
}

}  // namespace

route_fault_t FindFaultOfRoute() {
  route_t route;
  if (!FindRoute(inet_addr(kSomewhere), &route)) return {};
  const std::string where = std::string("the route to ") + kSomewhere;
  if (route.error != 0) {
    return {"there is no route to the daemon, applications have no network: " +
                where + ": " + strerror(route.error),
            "vantrelctl network start"};
  }
  char name[IF_NAMESIZE] = "?";
  if (route.type != RTN_LOCAL) {
    if_indextoname(route.interface, name);
    return {where + " leads through " + name +
                ", past the daemon: a default route of this machine wins",
            std::string("ip route del default dev ") + name};
  }
  if (route.source != inet_addr(kApplicationAddressText)) {
    in_addr source = {route.source};
    return {where + " has the source address " + inet_ntoa(source) +
                " and not " + kApplicationAddressText +
                ": owners of connections will not be found",
            ""};
  }
  return {};
}

bool LeadsToDaemon(const std::string& address) {
  in_addr destination = {};
  route_t route;
  if (inet_pton(AF_INET, address.c_str(), &destination) != 1 ||
      !FindRoute(destination.s_addr, &route)) {
    return false;
  }
  // The machine's own addresses are the source of what is sent to them.
  return route.error == 0 && route.type == RTN_LOCAL &&
         route.source == inet_addr(kApplicationAddressText) &&
         destination.s_addr != route.source;
}

std::vector<std::string> FindDefaultRoutes() {
  constexpr size_t kDevice = 0, kDestination = 1, kFlags = 3, kMask = 7;
  std::vector<std::string> interfaces;
  for (const auto& row : ReadTable("/proc/net/route")) {
    if (row.size() > kMask && row[kDestination] == "00000000" &&
        row[kMask] == "00000000" && IsUsable(row[kFlags]) &&
        row[kDevice] != "lo" && row[kDevice] != "*") {
      interfaces.push_back(row[kDevice]);
    }
  }
  return interfaces;
}

std::vector<std::string> FindDefaultRoutesOfIpv6() {
  constexpr size_t kDestination = 0, kLength = 1, kFlags = 8, kDevice = 9;
  std::vector<std::string> interfaces;
  for (const auto& row : ReadTable("/proc/net/ipv6_route")) {
    if (row.size() > kDevice && ParseHex(row[kLength]) == 0 &&
        row[kDestination].find_first_not_of('0') == std::string::npos &&
        IsUsable(row[kFlags]) && row[kDevice] != "lo") {
      interfaces.push_back(row[kDevice]);
    }
  }
  return interfaces;
}

bool HasOurNetwork(pid_t process) {
  struct stat ours = {};
  struct stat theirs = {};
  const std::string path = "/proc/" + std::to_string(process) + "/ns/net";
  return stat("/proc/self/ns/net", &ours) != 0 ||
         stat(path.c_str(), &theirs) != 0 || ours.st_ino == theirs.st_ino;
}

}  // namespace vantrel
