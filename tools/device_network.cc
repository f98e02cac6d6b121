#include "tools/device_network.h"

#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "common/interception.h"
#include "daemon/interception_rules.h"
#include "tools/command.h"
#include "tools/no_tunnel_rules.h"
#include "tools/route_look.h"

namespace vantrel {
namespace {

// By ip and nft and not over netlink: it happens once in a run, a refusal comes
// with the words that administrators know, and each command that a log names
// can be typed. nft has no other way that would not be a second language.
//
// Every command says itself whether it has worked, so nothing is looked at
// twice. JSON, with numbers for names that /etc/iproute2 can change.

using Words = std::vector<std::string>;

constexpr char kTable[] = "2374";
constexpr char kPriority[] = "40000";  // behind the main and the default table

// In the kernel's lists of routes, rules, addresses and groups of interfaces.
// No routing program has these numbers.
struct mark_t {
  const char* number;
  const char* alias;
  const char* refusal;  // the table of the rules that refuse
};
constexpr mark_t kLauncherMark = {"237", "vantrel-launch", "vantrel_launch"};
constexpr mark_t kSystemMark = {"238", "vantrel", "vantrel"};

const mark_t& GetMark(DeviceNetwork::Maker maker) {
  return maker == DeviceNetwork::Maker::kLauncher ? kLauncherMark : kSystemMark;
}

// Throws std::runtime_error with its words.
void Run(const Words& words) {
  const command_result_t result = RunCommand(words);
  if (!result.fault.empty()) throw std::runtime_error(result.fault);
}

void Try(const Words& words, std::vector<std::string>* faults) {
  const command_result_t result = RunCommand(words);
  if (!result.fault.empty()) faults->push_back(result.fault);
}

// What "ip" lists; nothing where there is none of it, or no "ip".
nlohmann::json List(Words words) {
  words.insert(words.begin(), {"ip", "-N", "-j"});
  const command_result_t result = RunCommand(words);
  const nlohmann::json list = nlohmann::json::parse(
      result.fault.empty() ? result.output : "[]", nullptr, false);
  return list.is_array() ? list : nlohmann::json::array();
}

// Texts, so that numbers as some versions print them compare, too.
std::string Get(const nlohmann::json& entry, const char* name) {
  const auto found = entry.find(name);
  if (found == entry.end()) return "";
  return found->is_string() ? found->get<std::string>() : found->dump();
}

struct interface_t {
  bool is_there = false;
  bool is_up = false;
  std::string group;
  std::string alias;
  // Of the applications' address; empty: it does not have it.
  std::string prefix_length;
  std::string metric;
};

interface_t FindInterface() {
  interface_t interface;
  const nlohmann::json links = List({"link", "show", "dev", kInterface});
  if (links.empty()) return interface;
  const nlohmann::json& entry = links.front();
  interface.is_there = true;
  interface.group = Get(entry, "group");
  interface.alias = Get(entry, "ifalias");
  for (const nlohmann::json& flag :
       entry.value("flags", nlohmann::json::array())) {
    interface.is_up |= flag == "UP";
  }
  const nlohmann::json addresses =
      List({"-4", "address", "show", "dev", kInterface});
  if (addresses.empty()) return interface;
  for (const nlohmann::json& address :
       addresses.front().value("addr_info", nlohmann::json::array())) {
    if (Get(address, "local") != kApplicationAddressText) continue;
    interface.prefix_length = Get(address, "prefixlen");
    interface.metric = Get(address, "metric");
  }
  return interface;
}

nlohmann::json ListRoutes() {
  return List({"-4", "route", "show", "table", kTable});
}

bool HasDefaultRoute() {
  for (const nlohmann::json& route : ListRoutes()) {
    if (Get(route, "dst") == "default") return true;
  }
  return false;
}

Words RouteCommand(const std::string& destination, const char* interface,
                   const mark_t& mark) {
  return {"ip",       "route",     "add",
          "local",    destination, "dev",
          interface,  "src",       kApplicationAddressText,
          "table",    kTable,      "protocol",
          mark.number};
}

nlohmann::json ListRules() {
  nlohmann::json rules = nlohmann::json::array();
  for (const nlohmann::json& rule :
       List({"rule", "show", "priority", kPriority})) {
    if (Get(rule, "table") == kTable) rules.push_back(rule);
  }
  return rules;
}

bool HasMarked(const nlohmann::json& list, const char* number) {
  for (const nlohmann::json& entry : list) {
    if (Get(entry, "protocol") == number) return true;
  }
  return false;
}

bool HasRefusal(const char* table) {
  return RunCommand({"nft", "list", "table", "ip", table}).fault.empty();
}

void TakeAwayRefusal(const mark_t& mark, std::vector<std::string>* faults) {
  if (HasRefusal(mark.refusal)) {
    Try({"nft", "delete", "table", "ip", mark.refusal}, faults);
  }
}

void TakeAwayAddress(const interface_t& interface,
                     std::vector<std::string>* faults) {
  Try({"ip", "address", "delete",
       std::string(kApplicationAddressText) + "/" + interface.prefix_length,
       "dev", kInterface},
      faults);
}

// The interface itself where |mark| is its maker's; down again where that has
// only set it up.
void TakeAwayInterface(const mark_t& mark, std::vector<std::string>* faults) {
  const interface_t interface = FindInterface();
  if (interface.group == mark.number) {
    Try({"ip", "link", "delete", kInterface}, faults);
  } else if (interface.alias == mark.alias) {
    Try({"ip", "link", "set", kInterface, "down", "alias", ""}, faults);
  }
}

}  // namespace

void DeviceNetwork::Make(
    const std::function<void(const std::string& text)>& warn) const {
  try {
    const bool is_whole =
        FindFaultOfInterface().empty() && FindFaultOfRoute().text.empty();
    if (!is_whole) {
      MakeInterface();
      MakeAddress();
      MakeRoute();
    }
    // Also where a launcher was killed before it came so far.
    if (HasMarked(ListRoutes(), GetMark(maker_).number)) MakeRefusal(warn);
    // Last, for it leads packets here: without the refusal they would be lost,
    // and a look-up is not repeated before seconds are over.
    if (!is_whole) MakeRule();
  } catch (const std::exception& e) {
    std::string fault = e.what();
    for (const std::string& left : TakeAway()) fault += "; left: " + left;
    throw std::runtime_error("cannot make the device's network: " + fault);
  }
}

void DeviceNetwork::MakeInterface() const {
  const mark_t& mark = GetMark(maker_);
  if (!FindInterface().is_there) {
    const command_result_t ifb = RunCommand(
        {"ip", "link", "add", kInterface, "group", mark.number, "type", "ifb"});
    if (!ifb.fault.empty() && FindInterface().is_there) {
      // The kernel's module makes one of this name when it is loaded.
      Run({"ip", "link", "set", kInterface, "group", mark.number});
    } else if (!ifb.fault.empty() &&
               !RunCommand({"ip", "link", "add", kInterface, "group",
                            mark.number, "type", "dummy"})
                    .fault.empty()) {
      throw std::runtime_error(ifb.fault);
    }
  }
  const interface_t interface = FindInterface();
  if (interface.is_up) return;
  Words words = {"ip", "link", "set", kInterface, "up"};
  if (interface.alias.empty()) {
    words.insert(words.end(), {"alias", mark.alias});
  }
  Run(words);
}

void DeviceNetwork::MakeAddress() const {
  // The daemon changes the mask when it starts and when it ends.
  if (!FindInterface().prefix_length.empty()) return;
  Run({"ip", "address", "add", std::string(kApplicationAddressText) + "/32",
       "metric", GetMark(maker_).number, "dev", kInterface});
}

void DeviceNetwork::MakeRoute() const {
  if (HasDefaultRoute()) return;
  Run(RouteCommand("default", "lo", GetMark(maker_)));
}

std::string DeviceNetwork::MakeRouteOfInterface(
    const std::string& destination) const {
  return RunCommand(RouteCommand(destination, kInterface, GetMark(maker_)))
      .fault;
}

void DeviceNetwork::MakeRule() const {
  if (!ListRules().empty()) return;
  Run({"ip", "rule", "add", "priority", kPriority, "lookup", kTable, "protocol",
       GetMark(maker_).number});
}

void DeviceNetwork::MakeRefusal(
    const std::function<void(const std::string& text)>& warn) const {
  if (maker_ == Maker::kLauncher && HasRefusal(kSystemMark.refusal)) return;
  const command_result_t result =
      RunCommand({"nft", "-f", "-"}, GetNoTunnelRules(GetMark(maker_).refusal));
  if (result.fault.empty()) return;
  warn("warning: while there is no tunnel, applications will wait for it: " +
       result.fault);
}

std::vector<std::string> DeviceNetwork::TakeAway() const {
  const mark_t& mark = GetMark(maker_);
  std::vector<std::string> faults;
  if (HasMarked(ListRules(), mark.number)) {
    Try({"ip", "rule", "delete", "priority", kPriority, "lookup", kTable,
         "protocol", mark.number},
        &faults);
  }
  if (HasMarked(ListRoutes(), mark.number)) {
    Try({"ip", "-4", "route", "flush", "table", kTable, "protocol",
         mark.number},
        &faults);
  }
  TakeAwayRefusal(mark, &faults);
  const interface_t interface = FindInterface();
  if (interface.metric == mark.number) TakeAwayAddress(interface, &faults);
  TakeAwayInterface(mark, &faults);
  return faults;
}

std::vector<std::string> DeviceNetwork::TakeAwayAll() const {
  std::vector<std::string> faults;
  for (const nlohmann::json& rule : ListRules()) {
    static_cast<void>(rule);  // each has the same words
    Try({"ip", "rule", "delete", "priority", kPriority, "lookup", kTable},
        &faults);
  }
  if (!ListRoutes().empty()) {
    Try({"ip", "-4", "route", "flush", "table", kTable}, &faults);
  }
  const interface_t interface = FindInterface();
  if (!interface.prefix_length.empty()) TakeAwayAddress(interface, &faults);
  for (const mark_t& mark : {kLauncherMark, kSystemMark}) {
    TakeAwayRefusal(mark, &faults);
    TakeAwayInterface(mark, &faults);
  }
  return faults;
}

bool DeviceNetwork::HasAny() const {
  const mark_t& mark = GetMark(maker_);
  const interface_t interface = FindInterface();
  return interface.group == mark.number || interface.alias == mark.alias ||
         interface.metric == mark.number ||
         HasMarked(ListRoutes(), mark.number) ||
         HasMarked(ListRules(), mark.number) || HasRefusal(mark.refusal);
}

std::string FindFaultOfInterface() {
  const interface_t interface = FindInterface();
  const std::string name = kInterface;
  if (!interface.is_there) return "there is no interface " + name;
  if (!interface.is_up) return name + " is down";
  if (interface.prefix_length.empty()) {
    return name + " has no address " + kApplicationAddressText;
  }
  return "";
}

}  // namespace vantrel
