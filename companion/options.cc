#include "companion/options.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/interception.h"
#include "support/command_line.h"
#include "support/metrics_file.h"
#include "support/socket_file.h"

namespace vantrel {
namespace {

constexpr char kProgram[] = "vantrel-companion";

// ID[,metered]
bool ParseNetwork(std::string text, companion_options_t* options) {
  active_network_t network;
  const size_t comma = text.find(',');
  if (comma != std::string::npos) {
    if (text.substr(comma) != ",metered") return false;
    network.is_metered = true;
    text.resize(comma);
  }
  if (!CLI::detail::lexical_cast(text, network.id)) return false;
  options->network = network;
  return true;
}

// ADDRESS[:PORT] or system
bool ParseDnsServer(const std::string& text, companion_options_t* options) {
  options->look_ups = look_ups_t();
  if (text == "system") {
    options->look_ups.are_all_for_name_servers = true;
    return true;
  }
  uint16_t port = 53;
  const size_t colon = text.find(':');
  if (colon != std::string::npos &&
      (!CLI::detail::lexical_cast(text.substr(colon + 1), port) || port == 0)) {
    return false;
  }
  in_addr address;
  if (inet_pton(AF_INET, text.substr(0, colon).c_str(), &address) != 1) {
    return false;
  }
  options->look_ups.server =
      HostAndPort(IpAddress::FromIPv4NetworkBytes(address.s_addr), port);
  return true;
}

bool ParseFd(const std::string& text, companion_options_t* options) {
  int fd = -1;
  struct stat file;
  if (!CLI::detail::lexical_cast(text, fd) || fstat(fd, &file) == -1 ||
      !S_ISSOCK(file.st_mode)) {
    return false;
  }
  options->fd = fd;
  return true;
}

using Parser = bool (*)(const std::string&, companion_options_t*);

// An option whose value has a form of its own, which |meaning| explains.
CLI::Option* AddParsed(CLI::App* app, const std::string& name,
                       const std::string& form, const std::string& meaning,
                       const std::string& help, Parser parser,
                       companion_options_t* options) {
  const auto parse = [=](const std::string& text) {
    if (!parser(text, options)) throw WrongValue(name, text, form + meaning);
  };
  return app->add_option_function<std::string>(name, parse, help)
      ->type_name(form);
}

// The values are read afterwards, together with their order.
CLI::Option* AddList(CLI::App* app, const std::string& name,
                     const std::string& form, const std::string& help) {
  return app->add_option(name, help)->type_name(form)->expected(1)->take_all();
}

void DefineLinks(CLI::App* app, companion_options_t* options) {
  AddChoice<int>(
      app, "--protocol",
      "Link protocol that the daemon was started with; auto: what "
      "each device's first bytes tell",
      {{"auto", LinkOpening::kAnyProtocol}, {"1", 1}, {"5", 5}, {"20", 20}},
      "auto", &options->protocol);
  auto* link = app->add_option_group("Link");
  AddList(app, "--listen", "bluetooth|unix:PATH|tcp:HOST:PORT|rfcomm:CHANNEL",
          "Wait for links there; may be given several times (default: "
          "bluetooth, and a socket file in $XDG_RUNTIME_DIR or /run)");
  AddParsed(app, "--fd", "N", ", the number of an open socket",
            "Serve the connected socket N, then exit", ParseFd, options);
  link->add_options(app->get_option("--listen"), app->get_option("--fd"));
  link->require_option(0, 1);
  app->add_option("--max-links", options->max_links, "Links at the same time")
      ->check(CLI::Range(1, 10000))
      ->capture_default_str();
  app->add_flag("--allow-remote-links", options->allows_remote_links,
                "Let tcp: links come from other machines; they are neither "
                "encrypted nor authenticated");
  AddChoice<LinkSecurity>(app, "--security",
                          "Least protection of bluetooth and rfcomm: links",
                          {{"low", LinkSecurity::kLow},
                           {"medium", LinkSecurity::kMedium},
                           {"high", LinkSecurity::kHigh}},
                          "medium", &options->security);
  auto* header = app->add_flag(
      "--header", options->send_header,
      "Send the 24-byte connection header first, for a daemon that holds the "
      "other end of the link itself");
  app->add_option("--max-tx", options->max_tx_size,
                  "Largest single write of the daemon, told in the header; "
                  "0: unlimited")
      ->check(CLI::Range(0, int{UINT16_MAX}))
      ->type_name("BYTES")
      ->needs(header);
}

void DefineTraffic(CLI::App* app, companion_options_t* options) {
  AddList(app, "--allow", "ADDRESS[/BITS]",
          "Let devices reach these addresses; of --allow and --deny the last "
          "that matches decides");
  AddList(app, "--deny", "ADDRESS[/BITS]", "Refuse these addresses");
  AddParsed(
      app, "--max-pending", "BYTES", ", a whole number",
      "Close a link of which more waits for remotes",
      [](const std::string& text, companion_options_t* out) {
        return CLI::detail::lexical_cast(text, out->max_held_bytes);
      },
      options)
      ->default_str(std::to_string(options->max_held_bytes));
  AddParsed(
      app, "--network", "ID[,metered]", " with a whole number",
      "Report this active network after the handshake and on SIGHUP",
      [](const std::string& text, companion_options_t* out) {
        return ParseNetwork(text, out);
      },
      options);
  AddParsed(app, "--dns", "ADDRESS[:PORT]|system",
            " with an IPv4 address, or the word",
            "Send datagrams for port 53 there instead of to the address asked; "
            "system: all name look-ups to the name servers of this machine, "
            "which those for " +
                std::string(kNameServerAddressText) + " reach anyway",
            ParseDnsServer, options);
  app->add_option("--build-info", options->build_info,
                  "What the handshake says about this build")
      ->type_name("TEXT")
      ->capture_default_str();
}

// Where a service's files outlive it: the first of the directories that
// systemd.exec(5) names.
std::string GetDefaultQuotaFile() {
  const char* const directories = getenv("STATE_DIRECTORY");
  const std::string list = directories == nullptr ? "" : directories;
  return list.empty() ? "" : list.substr(0, list.find(':')) + "/quotas.json";
}

void DefineRules(CLI::App* app, companion_options_t* options) {
  auto* rules = app->add_option("--rules", options->rules.file,
                                "What applications and devices may do, see "
                                "vantrel-rules(5); SIGHUP reads it again")
                    ->type_name("FILE");
  app->add_option("--quota-file", options->rules.quota_file,
                  "Keep what was used of quotas there (default: quotas.json in "
                  "$STATE_DIRECTORY)")
      ->type_name("FILE")
      ->needs(rules);
  auto* check = app->add_option("--check-rules",
                                "Print what the rules in FILE mean, and exit")
                    ->type_name("FILE")
                    ->expected(1)
                    ->excludes(rules);
  app->add_option("--explain",
                  "With --check-rules: print which rules an application meets "
                  "on its way to a destination")
      ->type_name("PACKAGE|UID|unknown ADDRESS:PORT")
      ->expected(2)
      ->needs(check);
}

// [HOST:]PORT
bool ParseMetricsListen(const std::string& text, companion_options_t* options) {
  const bool has_host = text.find(':') != std::string::npos;
  std::string reason;
  options->metrics_listen =
      ParseLinkAddress((has_host ? "tcp:" : "tcp:127.0.0.1:") + text,
                       LinkSide::kListen, &reason);
  return options->metrics_listen.has_value();
}

void DefineFigures(CLI::App* app, companion_options_t* options) {
  app->add_option("--status-socket", options->status_socket,
                  "Tell whoever connects to this socket what all devices do, "
                  "for vantrelctl top")
      ->check(FindFaultOfSocketPath)
      ->type_name("PATH");
  app->add_option("--metrics", options->metrics,
                  "Keep totals in this file, in Prometheus' text format")
      ->check(FindFaultOfMetricsPath)
      ->type_name("FILE");
  AddParsed(app, "--metrics-listen", "[HOST:]PORT",
            ", as in 9437 or 192.0.2.1:9437",
            "Give the same to scrapers there, at /metrics; without HOST to "
            "those of this machine",
            ParseMetricsListen, options);
}

void DefineLog(CLI::App* app, companion_options_t* options) {
  AddChoice<LogLevel>(app, "--log-level", "The least important lines",
                      {{"error", LogLevel::kError},
                       {"warning", LogLevel::kWarning},
                       {"info", LogLevel::kInfo},
                       {"debug", LogLevel::kDebug}},
                      "info", &options->log_level);
  AddChoice<bool>(app, "--log-format", "How lines look",
                  {{"text", false}, {"json", true}}, "text",
                  &options->log_as_json);
  app->add_flag_callback(
      "--verbose", [options] { options->log_level = LogLevel::kDebug; },
      "Log every datagram, acknowledgement and close, as --log-level debug");
}

// Where the user, or root, keeps sockets; empty where that is nowhere.
std::string GetRuntimeDirectory() {
  const char* const directory = getenv("XDG_RUNTIME_DIR");
  if (directory != nullptr && *directory != '\0') return directory;
  return geteuid() == 0 ? "/run" : "";
}

std::vector<std::string> GetDefaultListen() {
  std::vector<std::string> listen = {kBluetoothLink};
  const std::string directory = GetRuntimeDirectory();
  if (!directory.empty()) {
    listen.push_back("unix:" + directory + "/" + kProgram + ".sock");
  }
  return listen;
}

void ReadListen(const CLI::App& app, companion_options_t* options) {
  std::vector<std::string> listen = app.get_option("--listen")->results();
  if (listen.empty() && !options->fd) {
    listen = GetDefaultListen();
    options->listens_by_default = listen.size() > 1;
  }
  for (const std::string& text : listen) {
    std::string reason;
    const auto address = ParseLinkAddress(text, LinkSide::kListen, &reason);
    if (!address) throw CLI::ValidationError("--listen " + text, reason);
    options->listen.push_back(*address);
    if (address->kind == link_address_t::Kind::kBluetooth &&
        options->security == LinkSecurity::kHigh) {
      throw CLI::ValidationError(
          "--security high",
          "BlueZ cannot ask for it: --listen rfcomm:CHANNEL");
    }
  }
}

void ReadRulesOptions(const CLI::App& app, companion_options_t* options) {
  options->rules.is_metered = options->network && options->network->is_metered;
  if (options->rules.quota_file.empty()) {
    options->rules.quota_file = GetDefaultQuotaFile();
  }
  const auto file = app.get_option("--check-rules")->results();
  if (file.empty()) return;
  options->rules_check.emplace();
  options->rules_check->file = file.back();
  const auto question = app.get_option("--explain")->results();
  if (question.empty()) return;
  options->rules_check->question = ParseQuestion(question[0], question[1]);
  if (!options->rules_check->question) {
    throw WrongValue("--explain", question[0] + " " + question[1],
                     "PACKAGE, UID or unknown, and ADDRESS:PORT");
  }
}

void ReadDestinationRules(const CLI::App& app, companion_options_t* options) {
  std::map<const CLI::Option*, size_t> next;  // value of each option
  for (const CLI::Option* const option : app.parse_order()) {
    const std::string name = option->get_name();
    if (name != "--allow" && name != "--deny") continue;
    const std::string& text = option->results().at(next[option]++);
    const auto rule = DestinationPolicy::ParseRule(text, name == "--allow");
    if (!rule) {
      throw WrongValue(name, text,
                       "ADDRESS[/BITS], as in 10.0.0.0/8: no more "
                       "than BITS bits of ADDRESS may be set");
    }
    options->destination_rules.push_back(*rule);
  }
}

}  // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv,
                                companion_options_t* options, std::ostream& out,
                                std::ostream& err) {
  options->build_info = std::string(kProgram) + " " + VANTREL_VERSION;
  CLI::App app("The other end of vantrel's link: opens the real connections.",
               kProgram);
  AddVersion(&app);
  DefineLinks(&app, options);
  DefineTraffic(&app, options);
  DefineRules(&app, options);
  DefineFigures(&app, options);
  DefineLog(&app, options);
  return ParseCommandLine(&app, argc, argv, out, err, [&app, options] {
    ReadListen(app, options);
    ReadDestinationRules(app, options);
    ReadRulesOptions(app, options);
  });
}

}  // namespace vantrel
