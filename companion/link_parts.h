#pragma once

#include <asio/io_context.hpp>
#include <functional>

#include "companion/companion_log.h"
#include "companion/destination_policy.h"
#include "companion/flow_scheduler.h"
#include "companion/link_protocol.h"
#include "companion/socket_pool.h"

namespace vantrel {

// What the streams and flows of a link use of it. All of it outlives them.
struct LinkParts {
  asio::io_context& loop;
  LinkProtocol& protocol;
  FlowScheduler& scheduler;
  CompanionLog& log;
  const DestinationPolicy& policy;
  SocketPool& sockets;
  // To be called when something new waits in the scheduler, from the handlers
  // of streams and flows; not needed while the device's messages are handled.
  // The link may end by it: a flow is then destroyed, a stream finishes.
  std::function<void()> on_waiting;
};

}  // namespace vantrel
