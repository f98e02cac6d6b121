// What a device must have before a link is asked for, and what a daemon makes
// of it.
#include <cutils/properties.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <fstream>
#include <iterator>
#include <sstream>

#include "control/control_packets.h"
#include "daemon/interception_rules.h"
#include "tools/command.h"
#include "tools/control_port.h"
#include "tools/ctl/doctor_checks.h"
#include "tools/device_network.h"
#include "tools/lock_file.h"
#include "tools/route_look.h"
#include "tools/rules.h"

namespace vantrel {
namespace {

// Each open connection is a descriptor, and on two of the protocols so is each
// look-up of an owner. What a system without a service manager gives is less.
constexpr rlim_t kEnoughDescriptors = 16384;

using Words = std::vector<std::string>;

Words Split(const std::string& text) {
  std::istringstream words(text);
  return {std::istream_iterator<std::string>(words),
          std::istream_iterator<std::string>()};
}

// The value behind |name| in a table of /proc, such as "CapEff:".
std::string FindValue(const std::string& file, const std::string& name) {
  std::ifstream lines(file);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind(name, 0) == 0) return line.substr(name.size());
  }
  return "";
}

finding_t CheckRights(examination_t* /*examination*/) {
  const unsigned long long rights =
      strtoull(FindValue("/proc/self/status", "CapEff:").c_str(), nullptr, 16);
  std::string missing;
  const std::pair<int, const char*> needed[] = {
      {CAP_NET_ADMIN, " CAP_NET_ADMIN"},
      {CAP_NET_RAW, " CAP_NET_RAW"},
      {CAP_NET_BIND_SERVICE, " CAP_NET_BIND_SERVICE"}};
  for (const auto& [right, name] : needed) {
    if ((rights >> right & 1) == 0) missing += name;
  }
  if (missing.empty()) return Held("those that the daemon needs");
  return Broken("missing:" + missing, "sudo vantrelctl doctor");
}

finding_t CheckWrapper(examination_t* /*examination*/) {
  if (!FindProgram(kIptablesWrapper).empty()) return Held(kIptablesWrapper);
  return Broken(std::string("there is no program ") + kIptablesWrapper,
                "ln -s /usr/libexec/vantrel/system /system");
}

finding_t CheckPrograms(examination_t* /*examination*/) {
  const std::pair<const char*, const char*> needed[] = {
      {"ifconfig", "net-tools"}, {"ip", "iproute2"}, {"nft", "nftables"}};
  for (const auto& [program, package] : needed) {
    if (FindProgram(program).empty()) {
      return Broken(std::string("there is no program ") + program,
                    std::string("apt install ") + package);
    }
  }
  return Held("ifconfig, ip and nft");
}

// What is wrong with the daemon's rules in an empty network, which nobody sees
// and which ends with this process. "unknown" where there can be none.
std::string TryRules() {
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return "unknown";
  // The lock of the packet filter's tools stands there; somebody may hold it.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
    static_cast<void>(!mount("none", "/run", "tmpfs", 0, nullptr));
  }
  for (const auto& rule : GetInterceptionRules(1, 1)) {
    Words words = {kIptablesWrapper, "-w", "-t", rule.table};
    for (const std::string& word : Split(rule.command)) words.push_back(word);
    std::string fault = RunCommand(words).fault;
    if (!fault.empty()) return fault;
  }
  return "";
}

// The result of |work| in a process of its own.
std::string RunApart(std::string (*work)()) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return "unknown";
  const UniqueFd near_end(ends[0]);
  UniqueFd far_end(ends[1]);
  const pid_t child = fork();
  if (child == 0) {
    const std::string result = work();
    static_cast<void>(!write(far_end.Get(), result.data(), result.size()));
    _exit(0);
  }
  far_end.Reset();
  std::string result = child < 0 ? "unknown" : "";
  char bytes[4096];
  ssize_t count = 0;
  while ((count = read(near_end.Get(), bytes, sizeof(bytes))) > 0) {
    result.append(bytes, static_cast<size_t>(count));
  }
  if (child > 0) waitpid(child, nullptr, 0);
  return result;
}

finding_t CheckPacketFilter(examination_t* /*examination*/) {
  if (FindProgram(kIptablesWrapper).empty()) {
    return Unknown("there is no tool for it");
  }
  const std::string fault = RunApart(TryRules);
  if (fault.empty()) return Held("takes all rules, in an empty network");
  if (fault == "unknown") return Unknown("needs root");
  const char* module =
      fault.find("TPROXY") != std::string::npos     ? "xt_TPROXY"
      : fault.find("REDIRECT") != std::string::npos ? "xt_REDIRECT"
      : fault.find(kUdpTable) != std::string::npos  ? "iptable_mangle"
                                                    : "iptable_nat";
  return Broken(fault, std::string("modprobe ") + module);
}

finding_t CheckInterface(examination_t* examination) {
  const std::string fault = FindFaultOfInterface();
  if (fault.empty()) return Held(std::string(kInterface) + " is up");
  if (examination->launcher == 0) {
    return Held("vantrel-launch will make it: " + fault);
  }
  return Broken(fault, "vantrelctl network start");
}

finding_t CheckRoute(examination_t* examination) {
  if (examination->launcher == 0) {
    if (DeviceNetwork(DeviceNetwork::Maker::kLauncher).HasAny()) {
      return Broken("a launcher that was killed has left its network",
                    "vantrelctl network stop");
    }
    return Held("vantrel-launch makes it when it is missing");
  }
  const route_fault_t fault = FindFaultOfRoute();
  if (fault.text.empty()) return Held("leads to the daemon");
  return Broken(fault.text, fault.command);
}

finding_t CheckDefaultRoutes(examination_t* examination) {
  const auto interfaces = FindDefaultRoutes();
  if (interfaces.empty()) return Held("none is in the way");
  if (examination->launcher > 0 && FindFaultOfRoute().text.empty()) {
    return Held("the one through " + interfaces.front() + " does not win");
  }
  return Broken(
      "the one through " + interfaces.front() + " leads past the daemon",
      "ip route del default dev " + interfaces.front());
}

finding_t CheckIpv6(examination_t* /*examination*/) {
  const auto interfaces = FindDefaultRoutesOfIpv6();
  if (interfaces.empty()) return Held("no route goes around the tunnel");
  return Broken("IPv6 goes around the tunnel, through " + interfaces.front(),
                "ip -6 route del default dev " + interfaces.front());
}

finding_t CheckLauncher(examination_t* examination) {
  const auto holder = FindLockHolder(examination->lock);
  if (!holder) {
    return Broken("no vantrel-launch runs on this device", "vantrel-launch");
  }
  if (HasTunnel(*examination)) return Held("a daemon of " + *holder + " runs");
  return Broken(*holder +
                    " holds the lock and has no daemon: it waits for its "
                    "link",
                "");
}

finding_t CheckRules(examination_t* examination) {
  const size_t found = RunRulesTask(RulesTask::Kind::kList).size();
  const size_t complete = GetCompleteRuleCount();
  if (!HasTunnel(*examination)) {
    if (found == 0) return Held("none is left behind");
    return Broken(std::to_string(found) + " of a killed daemon are left",
                  "vantrelctl rules teardown");
  }
  const std::string text =
      std::to_string(found) + " of " + std::to_string(complete) + " stand";
  if (found >= complete) return Held(text);
  return Broken(text + "; the daemon's log says why",
                "vantrelctl stop; vantrel-launch");
}

finding_t CheckDescriptors(examination_t* examination) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  rlim_t count = limit.rlim_max;
  if (HasTunnel(*examination)) {
    std::istringstream soft(
        FindValue("/proc/" + std::to_string(examination->daemon) + "/limits",
                  "Max open files"));
    if (!(soft >> count)) return Unknown("the daemon is somebody else's");
  }
  const std::string text =
      std::to_string(count) + " connections and files at once";
  if (count >= kEnoughDescriptors) return Held(text);
  return Broken("no more than " + text, "ulimit -Hn 524288");
}

finding_t CheckControlPort(examination_t* examination) {
  const bool is_wanted = property_get_bool("ro.debuggable", 0) != 0;
  const auto owner = FindControlPortOwner();
  if (!HasTunnel(*examination)) {
    if (!owner) return Held(is_wanted ? "free" : "not asked for");
    return Broken("UDP 127.0.0.1:" + std::to_string(kControlPort) +
                      " is taken by process " + std::to_string(*owner),
                  "kill " + std::to_string(*owner));
  }
  if (is_wanted == owner.has_value()) {
    return Held(is_wanted ? "listens" : "not asked for");
  }
  return Broken(is_wanted ? "does not listen: ro.debuggable became true later"
                          : "listens: ro.debuggable became false later",
                "vantrelctl stop; vantrel-launch");
}

}  // namespace

std::vector<check_t> GetDeviceChecks() {
  return {{"rights", CheckRights},
          {"wrapper", CheckWrapper},
          {"programs", CheckPrograms},
          {"packet filter", CheckPacketFilter},
          {"interface", CheckInterface},
          {"route", CheckRoute},
          {"default routes", CheckDefaultRoutes},
          {"IPv6", CheckIpv6},
          {"launcher", CheckLauncher},
          {"rules", CheckRules},
          {"descriptors", CheckDescriptors},
          {"control port", CheckControlPort}};
}

}  // namespace vantrel
