// What an application does, through the tunnel.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <thread>

#include "common/interception.h"
#include "common/log_texts.h"
#include "common/unique_fd.h"
#include "support/resolver_file.h"
#include "support/steady_time.h"
#include "tools/command.h"
#include "tools/ctl/command_outcome.h"
#include "tools/ctl/doctor_checks.h"
#include "tools/name_servers.h"
#include "tools/route_look.h"

namespace vantrel {
namespace {

// A remote of a slow link answers within it.
constexpr std::chrono::seconds kAnswerTimeout{10};
// The daemon notes a connection before it carries a byte of it.
constexpr std::chrono::seconds kOwnerTimeout{3};
constexpr std::chrono::milliseconds kOwnerInterval{10};

constexpr char kNoTunnel[] = "no daemon runs";

finding_t CheckNameServer(examination_t* examination) {
  std::string reason;
  const auto servers = FindNameServers(&reason);
  const std::string command = std::string("echo nameserver ") +
                              kNameServerAddressText + " >" + kResolverFile;
  if (servers.empty()) {
    return Broken(std::string(kResolverFile) + " " + reason, command);
  }
  if (!HasTunnel(*examination)) return Held(servers.front());
  // A resolver of the machine itself has servers of its own.
  const auto served =
      std::find_if(servers.begin(), servers.end(), [](const auto& server) {
        return server.rfind("127.", 0) == 0 || LeadsToDaemon(server);
      });
  if (served != servers.end()) return Held(*served);
  return Broken(servers.front() + " is not reached over the tunnel", command);
}

finding_t CheckName(examination_t* examination) {
  if (!HasTunnel(*examination)) return Unknown(kNoTunnel);
  const command_result_t result =
      RunCommand({"getent", "ahostsv4", examination->host}, "", kAnswerTimeout);
  std::istringstream(result.output) >> examination->address;
  if (result.fault.empty()) {
    return Held(examination->host + " is " + examination->address);
  }
  examination->address.clear();
  return Broken(examination->host + " is not found",
                "vantrel-companion --dns ADDRESS, on the other machine");
}

// Waits until |fd| is ready for |events|; false when |end| has passed.
bool Await(int fd, short events, SteadyTime end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(
      std::max(end - GetSteadyTime(), SteadyTime::duration::zero()));
  pollfd wanted = {fd, events, 0};
  return poll(&wanted, 1, static_cast<int>(left.count())) > 0;
}

// How much of a page came before the end of it, or of the time.
size_t Download(int fd, const std::string& host, SteadyTime end) {
  const std::string request =
      "GET / HTTP/1.0\r\nHost: " + host + "\r\nConnection: close\r\n\r\n";
  if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return 0;
  constexpr size_t kEnough = 64 * 1024;
  size_t total = 0;
  char bytes[4096];
  while (total < kEnough && Await(fd, POLLIN, end)) {
    const ssize_t count = recv(fd, bytes, sizeof(bytes), 0);
    if (count <= 0) break;
    total += static_cast<size_t>(count);
  }
  return total;
}

finding_t CheckConnection(examination_t* examination) {
  if (!HasTunnel(*examination)) return Unknown(kNoTunnel);
  if (examination->address.empty()) return Unknown("there is no address");
  if (!LeadsToDaemon(examination->address)) {
    return Broken(examination->address + " is not reached over the tunnel",
                  "ip route get " + examination->address);
  }
  sockaddr_in remote = {};
  remote.sin_family = AF_INET;
  remote.sin_port = htons(static_cast<uint16_t>(std::stoi(examination->port)));
  inet_pton(AF_INET, examination->address.c_str(), &remote.sin_addr);
  const std::string endpoint = examination->address + ":" + examination->port;
  const UniqueFd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const SteadyTime end = GetSteadyTime() + kAnswerTimeout;
  if (!examination->log.empty()) {
    examination->log_follower = std::make_unique<LogFollower>(examination->log);
  }
  // The daemon takes it at once, or nobody does.
  if (connect(fd.Get(), reinterpret_cast<const sockaddr*>(&remote),
              sizeof(remote)) != 0) {
    return Broken("the daemon does not take a connection to " + endpoint,
                  "vantrelctl rules status");
  }
  examination->endpoint = endpoint;
  const size_t count = Download(fd.Get(), examination->host, end);
  if (count > 0) {
    return Held(std::to_string(count) + " bytes from " + endpoint);
  }
  return Broken(endpoint + " has sent nothing; the companion's log says why",
                "");
}

// The UID in the line of a new stream to |endpoint|; empty for another line.
std::string FindUid(const std::string& message, const std::string& endpoint) {
  const std::string opened = VANTREL_TEXT_STREAM_OPENED + endpoint;
  const size_t at = message.find(opened);
  if (message.rfind(VANTREL_TEXT_STREAM, 0) != 0 || at == std::string::npos) {
    return "";
  }
  const std::string rest = message.substr(at + opened.size());
  const std::string before = VANTREL_TEXT_STREAM_UID;
  if (rest.rfind(before, 0) != 0) return "";
  return rest.substr(before.size(), rest.find(')') - before.size());
}

finding_t CheckOwner(examination_t* examination) {
  if (examination->endpoint.empty()) return Unknown("no connection was made");
  if (!examination->log_follower) {
    return Unknown("the daemon has no log file; VANTREL_LOG_FILE names one");
  }
  const std::string ours = std::to_string(getuid());
  const SteadyTime end = GetSteadyTime() + kOwnerTimeout;
  std::string line;
  while (GetSteadyTime() < end) {
    if (!examination->log_follower->Next(&line)) {
      std::this_thread::sleep_for(kOwnerInterval);
      continue;
    }
    const auto parsed = ParseLogLine(line);
    const std::string uid =
        parsed ? FindUid(parsed->message, examination->endpoint) : "";
    if (uid == ours) return Held("the companion was told UID " + uid);
    if (!uid.empty()) {
      return Broken("the companion was told UID " + uid + " and not " + ours,
                    "ip route get " + examination->address);
    }
  }
  return Unknown(examination->log + " has no line of the connection");
}

}  // namespace

std::vector<check_t> GetTunnelChecks() {
  return {{"name server", CheckNameServer},
          {"name", CheckName},
          {"connection", CheckConnection},
          {"owner", CheckOwner}};
}

}  // namespace vantrel
