// The link to the companion.
//
// Whether a machine offers the companion's service belongs between pairing and
// link, once links are named by a machine and not by a channel.
#include <bluetooth/bluetooth.h>
// Keeps this order.
#include <bluetooth/hci.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "common/unique_fd.h"
#include "tools/ctl/doctor_checks.h"

namespace vantrel {
namespace {

namespace fs = std::filesystem;

// Where BlueZ keeps what it knows of other machines: ADAPTER/MACHINE/info.
constexpr char kPairings[] = "/var/lib/bluetooth";

bool IsBluetooth(const examination_t& examination) {
  return examination.link &&
         examination.link->kind == link_address_t::Kind::kRfcomm;
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
  const auto& bytes = examination->link->bluetooth;
  char machine[sizeof("01:23:45:67:89:AB")];
  snprintf(machine, sizeof(machine), "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0],
           bytes[1], bytes[2], bytes[3], bytes[4], bytes[5]);
  std::error_code error;
  for (const auto& adapter : fs::directory_iterator(kPairings, error)) {
    if (HasKey(adapter.path() / machine / "info")) {
      return Held(std::string("paired with ") + machine);
    }
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    return Unknown("needs root");
  }
  return Broken(std::string("not paired with ") + machine,
                std::string("bluetoothctl pair ") + machine);
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
          {"link", CheckLink},
          {"protocol", CheckProtocol}};
}

}  // namespace vantrel
