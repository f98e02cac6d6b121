#include "tools/ctl/doctor.h"

#include <poll.h>
#include <stdio.h>

#include <chrono>
#include <exception>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <vector>

#include "common/printable.h"
#include "support/record_fields.h"
#include "tools/ctl/doctor_checks.h"
#include "tools/ctl/status_client.h"

namespace vantrel {
namespace {

using Words = std::vector<std::string>;

std::string GetProcFile(pid_t process, const char* name) {
  return "/proc/" + std::to_string(process) + "/" + name;
}

// What stands in a file of /proc with a zero behind each word.
Words ReadWords(pid_t process, const char* name) {
  Words words;
  std::ifstream file(GetProcFile(process, name));
  for (std::string word; std::getline(file, word, '\0');) words.push_back(word);
  return words;
}

// The value of an option, as "--option value" or "--option=value".
std::string FindOption(const Words& words, const std::string& option) {
  for (size_t i = 0; i < words.size(); ++i) {
    if (words[i] == option && i + 1 < words.size()) return words[i + 1];
    if (words[i].rfind(option + "=", 0) == 0) {
      return words[i].substr(option.size() + 1);
    }
  }
  return "";
}

pid_t FindLauncher(const std::string& lock) {
  pid_t process = 0;
  try {
    if (FindLockHolder(lock)) std::ifstream(lock) >> process;
  } catch (const std::exception&) {
    // The check of the launcher says it.
  }
  return process;
}

// The child that was started as the daemon is: with a protocol, and nothing
// else.
pid_t FindDaemon(pid_t launcher, const std::string& protocol) {
  const std::string task = "task/" + std::to_string(launcher) + "/children";
  std::ifstream children(GetProcFile(launcher, task.c_str()));
  for (pid_t child = 0; children >> child;) {
    const Words words = ReadWords(child, "cmdline");
    if (words.size() == 2 && words[1] == protocol) return child;
  }
  return 0;
}

// None when nobody tells it in time.
std::optional<launch_state_t> ReadState(const std::string& socket) {
  if (socket.empty()) return std::nullopt;
  try {
    StatusClient client(socket);
    pollfd wanted = {client.GetFd(), POLLIN, 0};
    while (poll(&wanted, 1, kStateIntervalMs) > 0) {
      const bool is_there = client.Receive();
      while (auto state = client.Next()) {
        if (auto* const launcher = std::get_if<launch_state_t>(&*state)) {
          return std::move(*launcher);
        }
      }
      if (!is_there) break;
    }
  } catch (const std::exception&) {
    // Without it fewer checks can be made, and those say so.
  }
  return std::nullopt;
}

void LookAtLauncher(const doctor_options_t& options,
                    examination_t* examination) {
  const Words words = ReadWords(examination->launcher, "cmdline");
  examination->protocol = FindOption(words, "--protocol");
  if (examination->protocol.empty()) examination->protocol = "20";
  examination->daemon =
      FindDaemon(examination->launcher, examination->protocol);
  examination->state = ReadState(options.status_socket.empty()
                                     ? FindOption(words, "--status-socket")
                                     : options.status_socket);
  std::string reason;
  for (const std::string& word : words) {
    const auto link = ParseLinkAddress(word, LinkSide::kConnect, &reason);
    if (link) examination->link = link;
  }
  if (examination->log.empty()) {
    examination->log = FindOption(ReadWords(examination->launcher, "environ"),
                                  "VANTREL_LOG_FILE");
  }
}

examination_t BeginExamination(const doctor_options_t& options) {
  examination_t examination;
  examination.lock = options.lock;
  examination.host = options.host;
  examination.port = options.port;
  examination.log = options.log;
  examination.launcher = FindLauncher(options.lock);
  if (examination.launcher > 0) LookAtLauncher(options, &examination);
  std::string reason;
  const auto link = ParseLinkAddress(options.link, LinkSide::kConnect, &reason);
  if (link) examination.link = link;
  return examination;
}

void Print(const char* name, const finding_t& finding) {
  const char* const state = finding.state == finding_t::State::kHeld ? "ok"
                            : finding.state == finding_t::State::kBroken
                                ? "FAULT"
                                : "?";
  std::string text = finding.text;
  if (!finding.command.empty()) text += "; what helps: " + finding.command;
  printf("%-6s%-15s %s\n", state, name, EscapeControls(text).c_str());
}

void PrintJson(const char* name, const finding_t& finding) {
  nlohmann::ordered_json fields = {{record_fields::kRecord, "check"},
                                   {"check", name}};
  fields["held"] = nullptr;
  if (finding.state != finding_t::State::kUnknown) {
    fields["held"] = finding.state == finding_t::State::kHeld;
  }
  fields["text"] = finding.text;
  if (!finding.command.empty()) fields["command"] = finding.command;
  printf("%s\n",
         fields.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace)
             .c_str());
}

finding_t Look(const check_t& check, examination_t* examination) {
  try {
    return check.look(examination);
  } catch (const std::exception& e) {
    return Unknown(e.what());
  }
}

}  // namespace

finding_t Held(const std::string& text) {
  return {finding_t::State::kHeld, text, ""};
}

finding_t Broken(const std::string& text, const std::string& command) {
  return {finding_t::State::kBroken, text, command};
}

finding_t Unknown(const std::string& text) {
  return {finding_t::State::kUnknown, text, ""};
}

bool HasTunnel(const examination_t& examination) {
  return examination.daemon > 0;
}

int RunDoctor(const doctor_options_t& options) {
  examination_t examination = BeginExamination(options);
  bool has_all = true;
  for (const auto& checks :
       {GetDeviceChecks(), GetLinkChecks(), GetTunnelChecks()}) {
    for (const check_t& check : checks) {
      const finding_t finding = Look(check, &examination);
      has_all &= finding.state == finding_t::State::kHeld;
      (options.is_json ? PrintJson : Print)(check.name, finding);
      fflush(stdout);
    }
  }
  return has_all ? 0 : 1;
}

}  // namespace vantrel
