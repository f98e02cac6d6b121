// vantrel-launch: connects the link to the companion, starts the daemon over
// it and says what it reports.
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <map>
#include <string>

#include "tools/launch/launcher.h"
#include "tools/launch/link_connector.h"
#include "tools/launch_state.h"
#include "tools/standard_descriptors.h"

namespace vantrel {
namespace {

constexpr int kUsageStatus = 2;
// Not one of the daemon's: what sysexits.h calls a temporary failure.
constexpr int kInUseStatus = 75;

void AddLinkOptions(CLI::App* app, launch_options_t* options) {
  app->add_option_function<std::string>(
         "LINK",
         [options](const std::string& text) {
           std::string reason;
           const auto link =
               ParseLinkAddress(text, LinkSide::kConnect, &reason);
           if (!link) throw CLI::ValidationError(text, reason);
           options->link = *link;
         },
         "unix:PATH, tcp:HOST:PORT, rfcomm:BDADDR/CHANNEL or fd:N")
      ->required();
  app->add_option("--protocol", options->protocol,
                  "The link protocol: 1, 5 or 20 (default 20)")
      ->check(CLI::IsMember({"1", "5", "20"}));
  app->add_option("--daemon", options->daemon,
                  "The daemon (default: vantrel beside this program, or in "
                  "PATH)");
  app->add_option(
      "--lock", options->lock,
      "The lock file of this device (default " + std::string(kLockFile) + ")");
  app->add_option("--security", options->security,
                  "What a Bluetooth link must have: low (nothing), medium "
                  "(encryption, the default) or high (safe pairing, too)")
      ->transform(CLI::Transformer(
          std::map<std::string, LinkSecurity>{{"low", LinkSecurity::kLow},
                                              {"medium", LinkSecurity::kMedium},
                                              {"high", LinkSecurity::kHigh}},
          CLI::ignore_case));
  app->add_flag("--restart", options->is_restarting,
                "Connect again when the daemon has ended, after 1 s, doubling "
                "up to 60 s");
}

void AddRelayOptions(CLI::App* app, launch_options_t* options) {
  CLI::Option* const direct =
      app->add_flag("--direct", options->is_direct,
                    "Hand the connected socket over as it is, without "
                    "connection header and relay");
  app->add_option("--capture", options->capture,
                  "Record what crosses the link to a pcapng file")
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
      ->excludes(direct);
}

void AddReportOptions(CLI::App* app, launch_options_t* options) {
  app->add_flag("--json", options->is_json,
                "Print records as JSON objects, one a line");
  app->add_option("--metrics", options->metrics,
                  "Keep totals in this file, in Prometheus' text format");
  app->add_option("--status-socket", options->status_socket,
                  "Tell whoever connects to this socket what happens, for "
                  "vantrelctl top")
      ->check(FindFaultOfSocketPath)
      ->take_last();  // a service has one of its own
  app->add_option("--stats-every", options->stats_every_seconds,
                  "Ask the daemon for statistics every so many seconds, where "
                  "its control port listens")
      ->check(CLI::Range(1, 86400));
}

// Before anything is opened that could take a closed descriptor's number.
void CheckTogether(const launch_options_t& options) {
  if (options.link.kind == link_address_t::kFd) {
    const std::string fault = FindFaultOfDescriptor(options.link.fd);
    if (!fault.empty()) throw CLI::ValidationError(options.link.text, fault);
  }
  if (options.is_restarting && options.link.kind == link_address_t::kFd) {
    throw CLI::ValidationError("--restart", "fd:N cannot be connected again");
  }
}

// The exit status when the program is not to go on, or -1.
int ParseCommandLine(int argc, char** argv, launch_options_t* options) {
  CLI::App app(
      "Connects the link, starts the daemon over it and prints what "
      "it reports.",
      "vantrel-launch");
  app.set_version_flag("--version", "vantrel-launch " VANTREL_VERSION);
  AddLinkOptions(&app, options);
  AddRelayOptions(&app, options);
  AddReportOptions(&app, options);
  try {
    app.parse(argc, argv);
    CheckTogether(*options);
    return -1;
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    fprintf(stderr, "vantrel-launch: %s (see --help)\n", e.what());
    return kUsageStatus;
  }
}

int Main(int argc, char** argv) {
  OpenMissingStandardDescriptors();
  launch_options_t options;
  const int status = ParseCommandLine(argc, argv, &options);
  if (status >= 0) return status;
  if (options.daemon.empty()) options.daemon = FindDaemon();
  try {
    return Launcher(options).Run();
  } catch (const DeviceInUse& e) {
    fprintf(stderr, "vantrel-launch: %s\n", e.what());
    return kInUseStatus;
  } catch (const std::exception& e) {
    fprintf(stderr, "vantrel-launch: %s\n", e.what());
    return 1;
  }
}

}  // namespace
}  // namespace vantrel

int main(int argc, char** argv) { return vantrel::Main(argc, argv); }
