#include "daemon/iptables.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "common/log.h"
#include "daemon/interception_rules.h"

namespace vantrel {
namespace {

// Waits for the lock on the tables.
std::string Iptables(const char* table, const std::string& command) {
  return std::string(kIptablesWrapper) + " -w -t " + table + " " + command;
}

std::string Ifconfig(const char* netmask) {
  return std::string("ifconfig ") + kInterface + " " + kApplicationAddressText +
         " netmask " + netmask;
}

// One line for the shell: the commands run one after another whatever becomes
// of the earlier ones, and what they print comes back through the pipe.
std::string SetupCommand(uint16_t tcp_port, uint16_t udp_port) {
  std::string line = Ifconfig("255.255.255.255") + " 2>&1";
  for (const auto& rule : GetInterceptionRules(tcp_port, udp_port)) {
    line += ";" + Iptables(rule.table, rule.command) + " 2>&1";
  }
  return line;
}

// The reverse of installation: hook, contents and chain, UDP before TCP, and
// the interface's address last.
std::vector<std::string> TeardownCommands() {
  const std::string tcp = kTcpChain;
  const std::string udp = kUdpChain;
  return {
      Iptables(kUdpTable, "-D PREROUTING -i lo -p udp -j " + udp),
      Iptables(kUdpTable, "-F " + udp),
      Iptables(kUdpTable, "-X " + udp),
      Iptables(kTcpTable, "-D OUTPUT -o lo -p tcp -j " + tcp),
      Iptables(kTcpTable, "-F " + tcp),
      Iptables(kTcpTable, "-X " + tcp),
      Ifconfig("0.0.0.0"),
  };
}

void LogOutput(FILE* pipe) {
  char* line = nullptr;
  size_t capacity = 0;
  while (getline(&line, &capacity, pipe) != -1) {
    LOGE("iptables-wrapper-1.0 output: %s", line);
  }
  free(line);
}

}  // namespace

void SetupIptables(uint16_t tcp_port, uint16_t udp_port) {
  FILE* const pipe = popen(SetupCommand(tcp_port, udp_port).c_str(), "r");
  if (pipe == nullptr) {
    LOGE("Command to set iptables-wrapper-1.0 rules failed: %s",
         strerror(errno));
    return;
  }
  LogOutput(pipe);
  const int status = pclose(pipe);
  if (status != 0) LOGE("iptables-wrapper-1.0 command exited with %d", status);
}

void TeardownIptables(uint16_t /*port*/, bool report_failures) {
  bool failed = false;
  for (const std::string& command : TeardownCommands()) {
    const int status = system(command.c_str());
    if (status == 0 || !report_failures) continue;
    LOGE("Command failed with exit code %d: %s", status, command.c_str());
    failed = true;
  }
  if (failed) LOGE("@@@ VANTREL TEARDOWN FAILED");
}

}  // namespace vantrel
