#include "tools/launch/name_server_setting.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "common/interception.h"
#include "support/resolver_file.h"
#include "tools/command.h"
#include "tools/device_network.h"
#include "tools/name_servers.h"
#include "tools/route_look.h"

namespace vantrel {
namespace {

namespace fs = std::filesystem;

// Where resolvconf files what it was told. One kind of it prefers names of
// tunnels to those of other interfaces; it takes no other hint.
constexpr char kResolvconfRecord[] = "tun.vantrel";

// The folder of the system's own resolver, which is there while that runs.
constexpr char kResolvedFolder[] = "/run/systemd/resolve";
constexpr char kResolvedSocket[] = "/run/systemd/resolve/io.systemd.Resolve";

bool IsResolvedsFile() {
  std::error_code error;
  const fs::path target = fs::weakly_canonical(kResolverFile, error);
  return target.string().rfind(kResolvedFolder, 0) == 0;
}

// Some systems have resolvectl under the other name as well.
bool IsResolvectl(const std::string& program) {
  std::error_code error;
  return fs::canonical(program, error).filename() == "resolvectl";
}

}  // namespace

NameServerSetting::Tool NameServerSetting::FindTool() {
  const bool has_resolved =
      access(kResolvedSocket, F_OK) == 0 && !FindProgram("resolvectl").empty();
  if (has_resolved && IsResolvedsFile()) return Tool::kResolvectl;
  const std::string resolvconf = FindProgram("resolvconf");
  if (!resolvconf.empty() && !IsResolvectl(resolvconf)) {
    return Tool::kResolvconf;
  }
  return has_resolved ? Tool::kResolvectl : Tool::kNone;
}

std::string NameServerSetting::GiveBy(Tool tool) {
  if (tool == Tool::kResolvconf) {
    return RunCommand(
               {"resolvconf", "-a", kResolvconfRecord, "-m", "0", "-x"},
               std::string("nameserver ") + kNameServerAddressText + "\n")
        .fault;
  }
  std::string fault =
      RunCommand({"resolvectl", "dns", kInterface, kNameServerAddressText})
          .fault;
  if (!fault.empty()) return fault;
  // All names, and not only those below a domain of this interface.
  return RunCommand({"resolvectl", "domain", kInterface, "~."}).fault;
}

std::string NameServerSetting::TakeBackBy(Tool tool) {
  if (tool == Tool::kResolvconf) {
    return RunCommand({"resolvconf", "-d", kResolvconfRecord, "-f"}).fault;
  }
  return RunCommand({"resolvectl", "revert", kInterface}).fault;
}

void NameServerSetting::Give() {
  const Tool tool = FindTool();
  if (tool == Tool::kNone) {
    Hint("");
    return;
  }
  const std::string fault = GiveBy(tool);
  if (fault.empty()) {
    given_by_ = tool;
    return;
  }
  // What is left of a half of it; why that may fail, too, is told already.
  static_cast<void>(TakeBackBy(tool));
  Hint(fault);
}

void NameServerSetting::HandleStart() {
  if (given_by_ != Tool::kResolvectl) return;
  const std::string fault = DeviceNetwork(DeviceNetwork::Maker::kLauncher)
                                .MakeRouteOfInterface(kNameServerAddressText);
  if (!fault.empty()) say_("warning: names: " + fault);
}

void NameServerSetting::TakeBack() {
  const Tool tool = std::exchange(given_by_, Tool::kNone);
  if (tool == Tool::kNone) return;
  const std::string fault = TakeBackBy(tool);
  if (!fault.empty()) {
    say_("the resolver may still have the name server of the tunnel: " + fault);
  }
}

void NameServerSetting::TakeBackLeftOver() {
  const Tool tool = FindTool();
  // Most often there is nothing, and that is no fault.
  if (tool != Tool::kNone) static_cast<void>(TakeBackBy(tool));
}

void NameServerSetting::Hint(const std::string& failure) const {
  std::string fault;
  const std::vector<std::string> servers = FindNameServers(&fault);
  const bool is_served =
      std::any_of(servers.begin(), servers.end(), LeadsToDaemon);
  if (is_served && failure.empty()) return;
  if (fault.empty()) {
    fault = is_served ? "is as it was"
                      : "names no name server that the tunnel leads to";
  }
  say_("warning: names: " + failure + (failure.empty() ? "" : "; ") +
       kResolverFile + " " + fault + "; \"nameserver " +
       kNameServerAddressText + "\" is what it needs, --no-dns leaves it");
}

}  // namespace vantrel
