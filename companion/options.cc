#include "companion/options.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <CLI/CLI.hpp>
#include <limits>

namespace vantrel {
namespace {

constexpr int kExitUsage = 2;
constexpr char kProgram[] = "vantrel-companion";

bool ParseListen(const std::string& text, Options* options) {
  return LinkAddress::Parse(text, &options->listen.emplace());
}

// ID[,metered]
bool ParseNetwork(std::string text, Options* options) {
  ActiveNetwork network;
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

// ADDRESS[:PORT]
bool ParseDnsServer(const std::string& text, Options* options) {
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
  options->dns_server =
      HostAndPort(IpAddress::FromIPv4NetworkBytes(address.s_addr), port);
  return true;
}

bool ParseFd(const std::string& text, Options* options) {
  int fd = -1;
  if (!CLI::detail::lexical_cast(text, fd) || fcntl(fd, F_GETFD) == -1) {
    return false;
  }
  options->fd = fd;
  return true;
}

using Parser = bool (*)(const std::string&, Options*);

// An option whose value has a form of its own.
CLI::Option* AddParsed(CLI::App* app, const std::string& name,
                       const std::string& form, const std::string& help,
                       Parser parser, Options* options) {
  const auto parse = [name, parser, options](const std::string& text) {
    if (!parser(text, options)) {
      throw CLI::ValidationError(name, "not a usable value: '" + text + "'");
    }
  };
  return app->add_option_function<std::string>(name, parse, help)
      ->type_name(form);
}

void Define(CLI::App* app, Options* options) {
  app->set_version_flag("--version",
                        std::string(kProgram) + " " + VANTREL_VERSION,
                        "Print the version and exit");
  app->add_option("--protocol", options->protocol,
                  "Link protocol that the daemon was started with")
      ->check(CLI::IsMember({1, 5, 20}))
      ->capture_default_str();
  auto* link = app->add_option_group("Link");
  AddParsed(app, "--listen", "unix:PATH|tcp:HOST:PORT|rfcomm:CHANNEL",
            "Wait for links there, one after the other", ParseListen, options);
  AddParsed(app, "--fd", "N", "Serve the connected socket N, then exit",
            ParseFd, options);
  link->add_options(app->get_option("--listen"), app->get_option("--fd"));
  link->require_option(1);
  auto* header = app->add_flag(
      "--header", options->send_header,
      "Send the 24-byte connection header first, for a daemon that holds the "
      "other end of the link itself");
  app->add_option("--max-tx", options->max_tx_size,
                  "Largest single write of the daemon, told in the header; "
                  "0: unlimited")
      ->type_name("BYTES")
      ->needs(header);
  AddParsed(
      app, "--network", "ID[,metered]",
      "Report this active network after the handshake and on SIGHUP",
      [](const std::string& text, Options* out) {
        return ParseNetwork(text, out);
      },
      options);
  AddParsed(app, "--dns", "ADDRESS[:PORT]",
            "Send datagrams for port 53 there instead of to the address asked",
            ParseDnsServer, options);
  app->add_option("--build-info", options->build_info,
                  "What the handshake says about this build")
      ->type_name("TEXT")
      ->capture_default_str();
  app->add_flag("--verbose", options->verbose,
                "Log every datagram, acknowledgement and close");
}

std::string FirstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

}  // namespace

std::optional<int> ParseOptions(int argc, const char* const* argv,
                                Options* options, std::ostream& out,
                                std::ostream& err) {
  options->build_info = std::string(kProgram) + " " + VANTREL_VERSION;
  CLI::App app("The other end of vantrel's link: opens the real connections.",
               kProgram);
  Define(&app, options);
  try {
    app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::CallForHelp&) {
    out << app.help();
    return 0;
  } catch (const CLI::CallForVersion& version) {
    out << version.what() << "\n";
    return 0;
  } catch (const CLI::ParseError& error) {
    err << kProgram << ": " << FirstLine(error.what()) << "\n";
    return kExitUsage;
  }
}

}  // namespace vantrel
