// The link to the companion.
#include <bluetooth/bluetooth.h>
// Keeps this order.
#include <bluetooth/hci.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "bluez/service_search.h"
#include "common/unique_fd.h"
#include "tools/ctl/doctor_checks.h"

namespace vantrel {
namespace {

namespace fs = std::filesystem;

// Where BlueZ keeps what it knows of other machines: ADAPTER/MACHINE/info.
constexpr char kPairings[] = "/var/lib/bluetooth";
// For each of the few steps; a machine out of reach takes 5 s to be given up.
constexpr int kServiceWaitMs = 8000;

bool IsBluetooth(const examination_t& examination) {
  return examination.link &&
         (examination.link->kind == link_address_t::Kind::kRfcomm ||
          examination.link->kind == link_address_t::Kind::kBluetooth);
}

finding_t NeedsNoBluetooth(const examination_t& examination) {
  return examination.link ? Held("not needed for " + examination.link->text)
                          : Unknown("no link is named; --link does");
}

finding_t CheckAdapter(examination_t* examination) {
  if (!IsBluetooth(*examination)) return NeedsNoBluetooth(*examination);
  const UniqueFd hci(
      socket(AF_BLUETOOTH, SOCK_RAW | SOCK_CLOEXEC, BTPROTO_HCI));
  if (hci.Get() < 0) {
    return Broken("this kernel has no Bluetooth sockets",
                  "modprobe -a bluetooth rfcomm");
  }
  alignas(hci_dev_list_req) char
      bytes[sizeof(hci_dev_list_req) + HCI_MAX_DEV * sizeof(hci_dev_req)] = {};
  auto* const list = reinterpret_cast<hci_dev_list_req*>(bytes);
  list->dev_num = HCI_MAX_DEV;
  if (ioctl(hci.Get(), HCIGETDEVLIST, list) != 0 || list->dev_num == 0) {
    return Broken("there is no Bluetooth adapter", "");
  }
  for (int i = 0; i < list->dev_num; ++i) {
    if ((list->dev_req[i].dev_opt >> HCI_UP & 1) != 0) {
      return Held("hci" + std::to_string(list->dev_req[i].dev_id) + " is on");
    }
  }
  return Broken("the Bluetooth adapter is off", "bluetoothctl power on");
}

bool HasKey(const fs::path& info) {
  std::ifstream file(info);
  for (std::string line; std::getline(file, line);) {
    if (line == "[LinkKey]") return true;
  }
  return false;
}

finding_t CheckPairing(examination_t* examination) {
  if (!IsBluetooth(*examination)) return NeedsNoBluetooth(*examination);
  if (!examination->link->bluetooth) return Unknown("no machine is named");
  const std::string machine = ToText(*examination->link->bluetooth);
  std::error_code error;
  for (const auto& adapter : fs::directory_iterator(kPairings, error)) {
    if (HasKey(adapter.path() / machine / "info")) {
      return Held("paired with " + machine);
    }
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    return Unknown("needs root");
  }
  return Broken("not paired with " + machine, "bluetoothctl pair " + machine);
}

// Whether the other machine has answered in time.
bool Finish(ServiceSearch* search) {
  while (search->GetWait() != ServiceSearch::Wait::kNothing) {
    const bool is_writing = search->GetWait() == ServiceSearch::Wait::kWritable;
    pollfd wait = {search->GetFd(),
                   static_cast<short>(is_writing ? POLLOUT : POLLIN), 0};
    if (poll(&wait, 1, kServiceWaitMs) <= 0) return false;
    search->Advance();
  }
  return true;
}

finding_t CheckService(examination_t* examination) {
  const auto& link = examination->link;
  if (!link || link->kind != link_address_t::Kind::kBluetooth) {
    return NeedsNoBluetooth(*examination);
  }
  if (!link->bluetooth) return Unknown("no machine is named");
  const std::string machine = ToText(*link->bluetooth);
  ServiceSearch search(std::nullopt, *link->bluetooth);
  if (!Finish(&search)) return Broken(machine + " does not answer", "");
  if (search.GetError() != 0) {
    return Broken(machine + ": " + strerror(search.GetError()), "");
  }
  if (search.GetChannel() == 0) {
    return Broken(machine + " does not offer the service",
                  "vantrel-companion, on that machine");
  }
  return Held(machine + " offers the service");
}

finding_t CheckSocketFile(const link_address_t& link) {
  struct stat file = {};
  if (link.path.front() == '@' ||
      (stat(link.path.c_str(), &file) == 0 && S_ISSOCK(file.st_mode))) {
    return Unknown(link.text + " is there; nobody has connected it");
  }
  return Broken("there is no socket " + link.path,
                "vantrel-companion --listen " + link.text);
}

finding_t CheckLink(examination_t* examination) {
  const auto& link = examination->link;
  if (!link) return Unknown("no link is named; --link does");
  if (HasTunnel(*examination)) return Held(link->text + " is connected");
  if (link->kind == link_address_t::Kind::kUnix) return CheckSocketFile(*link);
  if (examination->launcher == 0) return Unknown("no vantrel-launch runs");
  return Broken(link->text + " is not connected",
                "vantrel-companion, on the other machine");
}

finding_t CheckProtocol(examination_t* examination) {
  if (!HasTunnel(*examination)) return Unknown("no daemon runs");
  const std::string protocol = "protocol " + examination->protocol;
  if (!examination->state || !examination->state->link_traffic) {
    return Unknown(protocol + "; vantrel-launch --status-socket tells more");
  }
  if (examination->state->network ||
      examination->state->link_traffic->rx_bytes > 0) {
    return Held("the companion speaks " + protocol);
  }
  if (examination->protocol == "1")
    return Held(protocol + ", silent by nature");
  return Broken("the companion has said nothing on " + protocol,
                "vantrel-companion --protocol " + examination->protocol);
}

}  // namespace

std::vector<check_t> GetLinkChecks() {
  return {{"adapter", CheckAdapter},
          {"pairing", CheckPairing},
          {"service", CheckService},
          {"link", CheckLink},
          {"protocol", CheckProtocol}};
}

}  // namespace vantrel
