#pragma once

#include <chrono>
#include <string>

#include "common/link_address.h"
#include "common/unique_fd.h"
#include "link/connection_header.h"
#include "support/peer_socket.h"
#include "tools/launch/event_loop.h"

namespace vantrel {

// A link that stands, and the header that the daemon expects in front of it.
struct connected_link_t {
  UniqueFd fd;  // non-blocking
  connection_header_t header;
  // The address as given; of a machine that was looked for, the found one.
  std::string text;
  std::string name;  // of that machine; empty when it is not known
};

// Connects to |address|; of "fd:N" takes ownership. Of a host name tries every
// address, each with its share of |timeout|. Throws std::runtime_error with the
// reason in one line, or ChoiceNeeded. Gives up when |loop| gets a signal to
// stop, or after |timeout|; looking up a host name is the one step that neither
// interrupts.
connected_link_t ConnectLink(const link_address_t& address,
                             LinkSecurity security, EventLoop* loop,
                             std::chrono::milliseconds timeout);

// Why |fd| cannot be a link, in words; empty when it is a connected stream
// socket.
std::string FindFaultOfDescriptor(int fd);

}  // namespace vantrel
