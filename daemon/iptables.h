#pragma once

#include <stdint.h>

namespace vantrel {

// The packet-filter rules that bring the applications' traffic to the two
// servers: chains "oem_PROXY_TCP" (nat) and "oem_PROXY_UDP" (mangle), and the
// address of interface ifb0 that the applications then send from. Both
// functions run shell commands and wait for them; failures are logged and never
// stop the caller.

// Installs the rules for servers on these ports, in host byte order.
void SetupIptables(uint16_t tcp_port, uint16_t udp_port);

// Removes the rules, whatever ports they name: |port| is not used. Every
// command is run even when an earlier one failed. With |report_failures| each
// failed command is logged.
void TeardownIptables(uint16_t port, bool report_failures);

}  // namespace vantrel
