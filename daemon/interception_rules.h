// What the interception rules are made of: the names in the packet filter, the
// tool that sets them, and the rules themselves. The daemon installs them, the
// tools look whether all of them stand.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "common/interception.h"

namespace vantrel {

// The platform's packet-filter tool. Everybody uses this one, so that all see
// the same tables where a system has several kinds.
constexpr char kIptablesWrapper[] = "/system/bin/iptables-wrapper-1.0";

constexpr char kTcpTable[] = "nat";
constexpr char kTcpChain[] = "oem_PROXY_TCP";
constexpr char kUdpTable[] = "mangle";
constexpr char kUdpChain[] = "oem_PROXY_UDP";

// A command of the tool that adds one chain or one rule, without the tool and
// its general options.
struct interception_rule_t {
  const char* table;
  std::string command;
};

// All of them, in the order of installation, for servers on these ports in host
// byte order. Each becomes one line of what "-S" lists of the two chains.
inline std::vector<interception_rule_t> GetInterceptionRules(
    uint16_t tcp_port, uint16_t udp_port) {
  const std::string tcp = kTcpChain;
  const std::string udp = kUdpChain;
  const std::string to_loopback = " -d 127.0.0.0/8 -j RETURN";
  const std::string to_interface =
      std::string(" -d ") + kApplicationAddressText + " -j RETURN";
  return {
      {kTcpTable, "-N " + tcp},
      {kTcpTable, "-A " + tcp + " -o lo" + to_loopback},
      {kTcpTable, "-A " + tcp + " -o lo" + to_interface},
      {kTcpTable, "-A " + tcp + " -o lo -p tcp -j REDIRECT --to-ports " +
                      std::to_string(tcp_port)},
      {kTcpTable, "-A OUTPUT -o lo -p tcp -j " + tcp},
      {kUdpTable, "-N " + udp},
      {kUdpTable, "-A " + udp + " -i lo" + to_loopback},
      {kUdpTable, "-A " + udp + " -i lo" + to_interface},
      {kUdpTable, "-A " + udp +
                      " -i lo -p udp -j TPROXY"
                      " --tproxy-mark 0x1/0x1 --on-port " +
                      std::to_string(udp_port)},
      {kUdpTable, "-A PREROUTING -i lo -p udp -j " + udp},
  };
}

}  // namespace vantrel
