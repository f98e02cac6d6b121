#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "common/host_and_port.h"

namespace vantrel {

// A connection as its application made it.
struct tracked_connection_t {
  HostAndPort source;
  HostAndPort destination;
};

// What the kernel's connection tracking knows of redirected connections. The
// packet filter changes the source port of one when another one that it knows
// has that port already, so the accepted socket does not tell the application's
// own port. The tracking does: one question and one answer over netlink
// (linux/netfilter/nfnetlink_conntrack.h).
class ConnectionTracking {
 public:
  ConnectionTracking() = default;
  ConnectionTracking(const ConnectionTracking&) = delete;
  ConnectionTracking& operator=(const ConnectionTracking&) = delete;
  ~ConnectionTracking();

  // Of the connection between |local|, the accepted socket's own end, and
  // |peer|, both IPv4. False where the kernel says nothing: it has no tracking
  // over netlink, the right to ask is missing, or the connection is forgotten.
  // Never waits.
  [[nodiscard]] bool Find(const HostAndPort& local, const HostAndPort& peer,
                          tracked_connection_t* found);

 private:
  bool Open();
  // 0, or what DecodeTrackingAnswer() or a system call says.
  int Ask(const std::string& question, tracked_connection_t* found);
  void GiveUp(int error);

  int fd_ = -1;  // kept open: later there may be no free descriptor
  uint32_t sequence_ = 0;
  bool is_given_up_ = false;
};

// The question for the connection whose answers go from |local| to |peer|.
std::string EncodeTrackingQuestion(const HostAndPort& local,
                                   const HostAndPort& peer, uint32_t sequence);
// Reads |answer|, |size| bytes as the kernel sends them. 0 when it is about an
// IPv4 connection; otherwise an errno: EAGAIN for the answer to another
// question than |sequence|, EBADMSG for what is none, or the kernel's refusal,
// ENOENT for a connection that it does not know.
[[nodiscard]] int DecodeTrackingAnswer(const char* answer, size_t size,
                                       uint32_t sequence,
                                       tracked_connection_t* found);

}  // namespace vantrel
