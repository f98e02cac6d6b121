#include "daemon/iptables.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "common/log.h"

// The platform's iptables, waiting for the lock on the tables.
#define IPTABLES "/system/bin/iptables-wrapper-1.0 -w"
#define IFCONFIG "ifconfig ifb0 192.168.167.239 netmask"

namespace vantrel {
namespace {

// One line for the shell: the commands run one after another whatever becomes
// of the earlier ones, and what they print comes back through the pipe.
std::string SetupCommand(uint16_t tcp_port, uint16_t udp_port) {
  const std::string tcp = std::to_string(tcp_port);
  const std::string udp = std::to_string(udp_port);
  // One command a line.
  // clang-format off
  return IFCONFIG " 255.255.255.255 2>&1;"
      IPTABLES " -t nat -N oem_PROXY_TCP 2>&1;"
      IPTABLES " -t nat -A oem_PROXY_TCP -o lo -d 127.0.0.0/8 -j RETURN 2>&1;"
      IPTABLES " -t nat -A oem_PROXY_TCP -o lo -d 192.168.167.239 -j RETURN"
               " 2>&1;"
      IPTABLES " -t nat -A oem_PROXY_TCP -o lo -p tcp -j REDIRECT --to-ports "
      + tcp + " 2>&1;"
      IPTABLES " -t nat -A OUTPUT -o lo -p tcp -j oem_PROXY_TCP 2>&1;"
      IPTABLES " -t mangle -N oem_PROXY_UDP 2>&1;"
      IPTABLES " -t mangle -A oem_PROXY_UDP -i lo -d 127.0.0.0/8 -j RETURN"
               " 2>&1;"
      IPTABLES " -t mangle -A oem_PROXY_UDP -i lo -d 192.168.167.239 -j RETURN"
               " 2>&1;"
      IPTABLES " -t mangle -A oem_PROXY_UDP -i lo -p udp -j TPROXY"
               " --tproxy-mark 0x1/0x1 --on-port "
      + udp + " 2>&1;"
      IPTABLES " -t mangle -A PREROUTING -i lo -p udp -j oem_PROXY_UDP 2>&1";
  // clang-format on
}

// The reverse of installation: hook, contents and chain, UDP before TCP, and
// the interface's address last.
constexpr const char* kTeardownCommands[] = {
    IPTABLES " -t mangle -D PREROUTING -i lo -p udp -j oem_PROXY_UDP",
    IPTABLES " -t mangle -F oem_PROXY_UDP",
    IPTABLES " -t mangle -X oem_PROXY_UDP",
    IPTABLES " -t nat -D OUTPUT -o lo -p tcp -j oem_PROXY_TCP",
    IPTABLES " -t nat -F oem_PROXY_TCP",
    IPTABLES " -t nat -X oem_PROXY_TCP",
    IFCONFIG " 0.0.0.0",
};

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
  for (const char* command : kTeardownCommands) {
    const int status = system(command);
    if (status == 0 || !report_failures) continue;
    LOGE("Command failed with exit code %d: %s", status, command);
    failed = true;
  }
  if (failed) LOGE("@@@ VANTREL TEARDOWN FAILED");
}

}  // namespace vantrel
