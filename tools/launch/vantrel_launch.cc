// vantrel-launch: connects the link to the companion, starts the daemon over
// it and says what it reports.
#include <exception>
#include <iostream>
#include <string>

#include "support/command_line.h"
#include "support/metrics_file.h"
#include "support/socket_file.h"
#include "support/standard_descriptors.h"
#include "tools/launch/launcher.h"
#include "tools/launch/link_connector.h"
#include "tools/launch_state.h"

namespace vantrel {
namespace {

// Not one of the daemon's: what sysexits.h calls a temporary failure.
constexpr int kInUseStatus = 75;
constexpr char kProgram[] = "vantrel-launch";

void AddLinkOptions(CLI::App* app, launch_options_t* options) {
  options->link.kind = link_address_t::Kind::kBluetooth;
  options->link.text = kBluetoothLink;
  app->add_option_function<std::string>(
      "LINK",
      [options](const std::string& text) {
        std::string reason;
        const auto link = ParseLinkAddress(text, LinkSide::kConnect, &reason);
        if (!link) throw CLI::ValidationError(text, reason);
        options->link = *link;
      },
      "bluetooth[:BDADDR], unix:PATH, tcp:HOST:PORT, "
      "rfcomm:BDADDR/CHANNEL or fd:N (default: bluetooth, the paired "
      "machine that offers the network)");
  app->add_option("--protocol", options->protocol,
                  "The link protocol: 1, 5 or 20 (default 20)")
      ->check(CLI::IsMember({"1", "5", "20"}));
  app->add_option("--daemon", options->daemon,
                  "The daemon (default: vantrel beside this program, or in "
                  "PATH)")
      ->type_name("FILE");
  app->add_option("--lock", options->lock,
                  "The lock file of this device (default " +
                      std::string(kLockFile) + ")")
      ->type_name("FILE");
  AddChoice<LinkSecurity>(
      app, "--security",
      "What a Bluetooth link must have: low (nothing), medium (encryption) or "
      "high (safe pairing, too)",
      {{"low", LinkSecurity::kLow},
       {"medium", LinkSecurity::kMedium},
       {"high", LinkSecurity::kHigh}},
      "medium", &options->security);
  app->add_flag("--restart", options->is_restarting,
                "Connect again when the daemon has ended, after 1 s, doubling "
                "up to 60 s");
}

void AddNetworkOptions(CLI::App* app, launch_options_t* options) {
  app->add_flag("!--no-network", options->makes_network,
                "Leave the device's interface, address, routes and rules as "
                "they are");
  app->add_flag("!--no-dns", options->gives_name_server,
                "Leave the device's resolver as it is");
}

void AddRelayOptions(CLI::App* app, launch_options_t* options) {
  CLI::Option* const direct =
      app->add_flag("--direct", options->is_direct,
                    "Hand the connected socket over as it is, without "
                    "connection header and relay");
  app->add_option("--capture", options->capture,
                  "Record what crosses the link to a pcapng file")
      ->type_name("FILE")
      ->excludes(direct);
  app->add_option_function<std::string>(
         "--shape",
         [options](const std::string& text) {
           std::string reason;
           const auto shape = ParseShape(text, &reason);
           if (!shape) throw CLI::ValidationError("--shape", reason);
           options->shape = *shape;
         },
         "Make the link slow, each way: rate=2Mbit,delay=30ms,chunk=990")
      ->type_name("LIMITS")
      ->excludes(direct);
}

void AddReportOptions(CLI::App* app, launch_options_t* options) {
  app->add_flag("--json", options->is_json,
                "Print records as JSON objects, one a line");
  app->add_option("--metrics", options->metrics,
                  "Keep totals in this file, in Prometheus' text format")
      ->type_name("FILE")
      ->check(FindFaultOfMetricsPath);
  app->add_option("--status-socket", options->status_socket,
                  "Tell whoever connects to this socket what happens, for "
                  "vantrelctl top")
      ->check(FindFaultOfSocketPath)
      ->type_name("PATH")
      ->take_last();  // a service has one of its own
  app->add_option("--stats-every", options->stats_every_seconds,
                  "Ask the daemon for statistics every so many seconds, where "
                  "its control port listens")
      ->check(CLI::Range(1, 86400))
      ->type_name("SECONDS");
}

// Before anything is opened that could take a closed descriptor's number.
void CheckTogether(const launch_options_t& options) {
  if (options.link.kind == link_address_t::Kind::kFd) {
    const std::string fault = FindFaultOfDescriptor(options.link.fd);
    if (!fault.empty()) throw CLI::ValidationError(options.link.text, fault);
  }
  if (options.is_restarting && options.link.kind == link_address_t::Kind::kFd) {
    throw CLI::ValidationError("--restart", "fd:N cannot be connected again");
  }
}

// The exit status when the program is not to go on.
std::optional<int> ParseOptions(int argc, char** argv,
                                launch_options_t* options) {
  CLI::App app(
      "Connects the link, starts the daemon over it and prints what "
      "it reports.",
      kProgram);
  AddVersion(&app);
  AddLinkOptions(&app, options);
  AddNetworkOptions(&app, options);
  AddRelayOptions(&app, options);
  AddReportOptions(&app, options);
  return ParseCommandLine(&app, argc, argv, std::cout, std::cerr,
                          [options] { CheckTogether(*options); });
}

int Main(int argc, char** argv) {
  OpenMissingStandardDescriptors();
  launch_options_t options;
  if (const auto status = ParseOptions(argc, argv, &options)) return *status;
  if (options.daemon.empty()) options.daemon = FindDaemon();
  try {
    return Launcher(options).Run();
  } catch (const DeviceInUse& e) {
    PrintFailure(kProgram, e.what(), std::cerr);
    return kInUseStatus;
  } catch (const std::exception& e) {
    PrintFailure(kProgram, e.what(), std::cerr);
    return 1;
  }
}

}  // namespace
}  // namespace vantrel

int main(int argc, char** argv) { return vantrel::Main(argc, argv); }
