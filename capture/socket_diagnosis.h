#pragma once

#include <linux/netlink.h>

#include <string>
#include <string_view>

#include "capture/netlink_socket.h"
#include "capture/socket_table.h"
#include "common/host_and_port.h"

namespace vantrel {

// One row of the kernel's table of TCP sockets, without the others: the kernel
// finds a socket by its two ends (linux/inet_diag.h), where a table costs it
// the printing of every row.
class SocketDiagnosis {
 public:
  // The row of the connection between |local|, the socket's own end, and
  // |remote|, both IPv4; of an IPv6 socket with mapped addresses, too.
  // Addresses are not set. False where the kernel says nothing: it has no such
  // socket, one that is bound to a device, or no diagnosis. Never waits.
  [[nodiscard]] bool Find(const HostAndPort& local, const HostAndPort& remote,
                          tcp_row_t* row);

 private:
  NetlinkSocket socket_{NETLINK_SOCK_DIAG, "socket diagnosis"};
  bool has_found_ = false;
  int fruitless_ = 0;  // questions, while none has been of use
};

// Both without the header of netlink. The answer is true when it is about a
// connection with these ports.
std::string EncodeDiagnosisQuestion(const HostAndPort& local,
                                    const HostAndPort& remote);
[[nodiscard]] bool DecodeDiagnosisAnswer(std::string_view answer, uint16_t port,
                                         uint16_t remote_port, tcp_row_t* row);

}  // namespace vantrel
