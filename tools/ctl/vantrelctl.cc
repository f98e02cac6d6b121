// vantrelctl: commands for a running daemon through its control port, and the
// interception rules by themselves.
#include <stdio.h>

#include <exception>
#include <functional>
#include <iostream>
#include <string>

#include "common/link_address.h"
#include "common/printable.h"
#include "control/control_packets.h"
#include "support/command_line.h"
#include "support/socket_file.h"
#include "support/standard_descriptors.h"
#include "tools/ctl/control_command.h"
#include "tools/ctl/doctor.h"
#include "tools/ctl/top_command.h"
#include "tools/device_network.h"
#include "tools/lock_file.h"
#include "tools/process_group.h"
#include "tools/rules.h"

namespace vantrel {
namespace {

constexpr char kProgram[] = "vantrelctl";
constexpr int kTimeoutSeconds = 10;
constexpr int kTransferTimeoutSeconds = 300;

int PrintRules() {
  const auto rules = RunRulesTask(RulesTask::Kind::kList);
  for (const std::string& rule : rules) {
    printf("%s\n", EscapeControls(rule).c_str());
  }
  if (rules.empty()) {
    PrintFailure(kProgram, "no interception rules", std::cerr);
  }
  return 0;
}

int TearDownRules(const std::string& lock, bool is_forced) {
  const auto holder = FindLockHolder(lock);
  if (holder && !is_forced) {
    PrintFailure(kProgram,
                 "a daemon of " + *holder + " uses these rules (" + lock +
                     "); --force removes them anyway",
                 std::cerr);
    return 1;
  }
  RunRulesTask(RulesTask::Kind::kRemove);
  const auto rules = RunRulesTask(RulesTask::Kind::kList);
  for (const std::string& rule : rules) {
    PrintFailure(kProgram, "still there: " + rule, std::cerr);
  }
  return rules.empty() ? 0 : 1;
}

int MakeNetwork() {
  DeviceNetwork(DeviceNetwork::Maker::kSystem)
      .Make([](const std::string& text) {
        PrintFailure(kProgram, text, std::cerr);
      });
  return 0;
}

int TakeNetworkAway() {
  const auto faults =
      DeviceNetwork(DeviceNetwork::Maker::kSystem).TakeAwayAll();
  for (const std::string& fault : faults) {
    PrintFailure(kProgram, fault, std::cerr);
  }
  return faults.empty() ? 0 : 1;
}

// The command line: |run| is what it asks for, once it was parsed.
class CommandLine {
 public:
  CommandLine() {
    AddVersion(&app_);
    app_.require_subcommand(1);
    AddPlain("stop", TYPE_STOP, "Stop the daemon");
    AddPlain("dump", TYPE_DUMP, "Write the state of the link to the log");
    AddPlain("ping", TYPE_PING, "Measure the round trip to the companion");
    AddTransfer("pull", TYPE_PULL, "Measure the link from the companion");
    AddTransfer("push", TYPE_PUSH, "Measure the link to the companion");
    AddPlain("stats", TYPE_TRANSFER_STATS,
             "Report transfer statistics on the status channel");
    AddRules();
    AddNetwork();
    AddTop();
    AddDoctor();
  }
  CommandLine(const CommandLine&) = delete;  // the parser points into this
  CommandLine& operator=(const CommandLine&) = delete;

  // The exit status when there is nothing to run.
  std::optional<int> Parse(int argc, char** argv) {
    return ParseCommandLine(&app_, argc, argv, std::cout, std::cerr);
  }

  int Run() const { return run_(); }

 private:
  void AddPlain(const char* name, uint8_t type, const char* help) {
    AddCommand(name, type, help, kTimeoutSeconds);
  }

  CLI::App* AddCommand(const char* name, uint8_t type, const char* help,
                       int timeout_seconds) {
    CLI::App* const command = app_.add_subcommand(name, help);
    command
        ->add_option("--log", command_.log,
                     "Follow this file, the daemon's log, and print the "
                     "outcome")
        ->type_name("FILE");
    command
        ->add_option("--timeout", command_.timeout_seconds,
                     "How many seconds to wait for the outcome (default " +
                         std::to_string(timeout_seconds) + ")")
        ->check(CLI::Range(1, 86400))
        ->type_name("SECONDS")
        ->needs("--log");
    command->callback([this, name, type, timeout_seconds] {
      command_.name = name;
      command_.type = type;
      if (command_.timeout_seconds == 0) {
        command_.timeout_seconds = timeout_seconds;
      }
      run_ = [this] { return RunControlCommand(command_); };
    });
    return command;
  }

  void AddTransfer(const char* name, uint8_t type, const char* help) {
    AddCommand(name, type, help, kTransferTimeoutSeconds)
        ->add_option_function<std::string>(
            "BYTES",
            [this](const std::string& text) {
              const auto bytes = ParseByteCount(text);
              if (!bytes) {
                throw CLI::ValidationError(
                    text,
                    "expected a number of bytes below 4G, as in 4096, "
                    "64K or 10M");
              }
              command_.bytes = *bytes;
            },
            "How many bytes to move, as in 4096, 64K or 10M")
        ->required();
  }

  void AddRules() {
    CLI::App* const rules = app_.add_subcommand(
        "rules", "The interception rules of this machine, without a daemon");
    rules->require_subcommand(1);
    rules->add_subcommand("status", "Print the rules that are there")
        ->callback([this] { run_ = PrintRules; });
    CLI::App* const teardown = rules->add_subcommand(
        "teardown", "Remove the rules that a killed daemon has left");
    teardown
        ->add_option("--lock", lock_,
                     "The lock file of this device (default " +
                         std::string(kLockFile) + ")")
        ->type_name("FILE");
    teardown->add_flag("--force", is_forced_,
                       "Remove them also while a daemon runs");
    teardown->callback(
        [this] { run_ = [this] { return TearDownRules(lock_, is_forced_); }; });
  }

  void AddNetwork() {
    CLI::App* const network = app_.add_subcommand(
        "network",
        "The interface, address, routes and rules that a daemon needs here");
    network->require_subcommand(1);
    network
        ->add_subcommand("start",
                         "Make what is missing, for whatever launcher comes")
        ->callback([this] { run_ = MakeNetwork; });
    network->add_subcommand("stop", "Take all of it away, whoever has made it")
        ->callback([this] { run_ = TakeNetworkAway; });
  }

  void AddTop() {
    CLI::App* const top = app_.add_subcommand(
        "top",
        "Show what moves, once a second, while vantrel-launch or "
        "vantrel-companion runs");
    top->add_option("PATH,--status-socket", top_.status_socket,
                    "The socket of vantrel-launch or vantrel-companion "
                    "(default " +
                        std::string(kStatusSocket) + ")")
        ->check(FindFaultOfSocketPath)
        ->type_name("PATH");
    top->add_option("--log", top_.log,
                    "Ask the daemon for statistics and streams, too, and read "
                    "them in this file, its log")
        ->type_name("FILE");
    top->add_flag("--once", top_.is_once, "Print one text and exit");
    top->add_flag("--json", top_.is_json,
                  "Print JSON objects, one a line, instead");
    top->callback([this] { run_ = [this] { return RunTop(top_); }; });
  }

  void AddDoctor() {
    CLI::App* const doctor = app_.add_subcommand(
        "doctor",
        "Go through all that a tunnel needs, and say what is wrong and what "
        "helps");
    doctor
        ->add_option("--lock", doctor_.lock,
                     "The lock file of this device (default " +
                         std::string(kLockFile) + ")")
        ->type_name("FILE");
    doctor
        ->add_option_function<std::string>(
            "--link",
            [this](const std::string& text) {
              std::string reason;
              if (!ParseLinkAddress(text, LinkSide::kConnect, &reason)) {
                throw CLI::ValidationError(text, reason);
              }
              doctor_.link = text;
            },
            "The link, where no vantrel-launch runs that has one")
        ->type_name("LINK");
    doctor
        ->add_option("--status-socket", doctor_.status_socket,
                     "The socket of vantrel-launch (default: the one that it "
                     "has)")
        ->check(FindFaultOfSocketPath)
        ->type_name("PATH");
    doctor
        ->add_option("--log", doctor_.log,
                     "The daemon's log (default: the one that it has)")
        ->type_name("FILE");
    doctor
        ->add_option("--host", doctor_.host,
                     "A web server to look up and to load a page from "
                     "(default " +
                         doctor_.host + ")")
        ->type_name("NAME");
    doctor->add_option("--port", doctor_.port, "Its port (default 80)")
        ->check(CLI::Range(1, 65535));
    doctor->add_flag("--json", doctor_.is_json,
                     "Print JSON objects, one a line, instead");
    doctor->callback([this] { run_ = [this] { return RunDoctor(doctor_); }; });
  }

  CLI::App app_{"Commands for a running daemon and for its interception rules.",
                kProgram};
  control_command_t command_;
  top_options_t top_;
  doctor_options_t doctor_;
  std::string lock_ = kLockFile;
  bool is_forced_ = false;
  std::function<int()> run_;
};

int Main(int argc, char** argv) {
  OpenMissingStandardDescriptors();
  AdoptOrphans();  // a command that hangs has children of its own
  CommandLine command_line;
  if (const auto status = command_line.Parse(argc, argv)) return *status;
  try {
    return command_line.Run();
  } catch (const std::exception& e) {
    PrintFailure(kProgram, e.what(), std::cerr);
    return 1;
  }
}

}  // namespace
}  // namespace vantrel

int main(int argc, char** argv) { return vantrel::Main(argc, argv); }
