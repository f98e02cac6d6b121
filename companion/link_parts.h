#pragma once

#include <errno.h>
#include <sys/socket.h>

#include <asio/io_context.hpp>
#include <functional>

#include "common/unique_fd.h"
#include "companion/applications.h"
#include "companion/companion_log.h"
#include "companion/destinations.h"
#include "companion/flow_scheduler.h"
#include "companion/link_peer.h"
#include "companion/link_protocol.h"
#include "companion/socket_pool.h"
#include "companion/traffic_rules.h"
#include "companion/upload_scheduler.h"

namespace vantrel {

// What the streams and flows of a link use of it. All of it outlives them.
struct link_parts_t {
  asio::io_context& loop;
  LinkProtocol& protocol;
  FlowScheduler& scheduler;
  UploadScheduler& uploads;
  Applications& applications;
  CompanionLog& log;
  const Destinations& destinations;
  TrafficRules& rules;
  const link_peer_t& peer;
  SocketPool& sockets;
  // To be called when something new waits in the scheduler, from the handlers
  // of streams and flows; not needed while the device's messages are handled.
  // The link may end by it: a flow is then destroyed, a stream finishes.
  std::function<void()> on_waiting;
  // Every handler of the link's descriptors does its work by this: what it
  // throws then ends this link and no other. |work| may destroy its object as
  // its last act.
  std::function<void(const std::function<void()>& work)> run;
  // Ends the flow that was silent longest, of those with a socket. False when
  // there is none.
  std::function<bool()> free_descriptor;
};

// A new socket of |family| and |type|, non-blocking, for a stream or flow of
// |link|. A flow gives its descriptor when there is no other. -1 on failure,
// with errno.
inline UniqueFd OpenSocket(const link_parts_t& link, int family, int type) {
  const int flags = SOCK_NONBLOCK | SOCK_CLOEXEC;
  UniqueFd fd(socket(family, type | flags, 0));
  const bool is_out = fd.Get() == -1 && (errno == EMFILE || errno == ENFILE);
  if (is_out && link.free_descriptor()) {
    fd.Reset(socket(family, type | flags, 0));
  }
  return fd;
}

}  // namespace vantrel
