#pragma once

#include <sys/socket.h>

#include <optional>
#include <string>

#include "common/link_address.h"
#include "common/unique_fd.h"

namespace vantrel {

// An endpoint of TCP, as the system has it.
struct tcp_address_t {
  sockaddr_storage bytes = {};
  socklen_t length = 0;
};

// Where |address|, a tcp: one, is. None when that cannot be found out; |reason|
// then says why, in a few words.
std::optional<tcp_address_t> FindTcpAddress(const link_address_t& address,
                                            std::string* reason);

// Whether nobody but this machine reaches it.
bool IsLoopback(const tcp_address_t& address);

// A socket bound to |address|, which then has the port, too; not listening yet.
// Without a descriptor on failure; the reason is in errno.
UniqueFd BindTcp(tcp_address_t* address);

// "192.0.2.1:80", or "[2001:db8::1]:80".
std::string ToText(const tcp_address_t& address);

}  // namespace vantrel
