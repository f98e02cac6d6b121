#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <sstream>
#include <string>

#include "common/host_and_port.h"
#include "common/log_limiter.h"
#include "link/waiting_datagrams.h"
#include "reactor/reactor.h"
#include "reactor/write_buffer.h"

namespace vantrel {

// The sending side that both link protocols share: the queue of outgoing
// messages, the link's write registration, and the time-out that ends the
// daemon when the companion stops reading. A member of its link, whose |link|
// descriptor it drains into and which outlives it.
class LinkOutput {
 public:
  LinkOutput(Socket& link, Reactor& reactor);

  // The largest number of bytes handed to one write; 0 means no limit.
  void SetMaxWriteSize(uint16_t bytes) { buffer_.SetMaxWriteSize(bytes); }

  // Queues what |write|, called with the queue, appends to it. False when
  // |write| returns false, which has then appended nothing. Registers the link
  // for writing, and stops the reactor when the socket has taken nothing for 15
  // seconds. That is looked at only here and in HasRoomForDatagram(): a blocked
  // link for which nothing new comes does not time out.
  template <typename Write>
  [[nodiscard]] bool AppendWith(Write write) {
    const bool was_empty = buffer_.IsEmpty();
    if (!write(&buffer_)) return false;
    OnAppended(was_empty);
    return true;
  }
  // The same for one whole message.
  void Append(std::string message);

  // At more than this many queued messages no stream is asked for data.
  // Datagrams do not count: a sender of them that is faster than the link would
  // keep every stream from it.
  static constexpr size_t kMaxQueuedMessages = 15;
  bool IsCongested() const {
    assert(datagrams_.GetCount() <= buffer_.GetQueuedItemCount());
    return buffer_.GetQueuedItemCount() - datagrams_.GetCount() >
           kMaxQueuedMessages;
  }

  // Whether a captured datagram of |payload_bytes| of the application at
  // |source| may be queued; see WaitingDatagrams. Says in the log what is
  // dropped, once a second at most.
  [[nodiscard]] bool HasRoomForDatagram(const HostAndPort& source,
                                        size_t payload_bytes);
  // Calls |queue|, which queues one datagram of |source|, or nothing.
  template <typename Queue>
  void QueueDatagram(const HostAndPort& source, Queue queue) {
    const uint32_t begin = GetEnd();
    queue();
    const uint32_t end = GetEnd();
    if (end != begin) datagrams_.Add(source, end, end - begin);
  }

  // Writes what the socket takes; the tail of every OnWriteReady(). The link
  // stays registered for writing while something is queued or |keep_writing|.
  // A failed write is logged and stops the reactor.
  void DrainAndRest(bool keep_writing);

  size_t GetTotalWrittenByteCount() const {
    return buffer_.GetTotalWrittenByteCount();
  }
  // The byte counts and registrations of the link's state dump.
  void Dump(std::stringstream& out, size_t rx_bytes) const;

 private:
  void OnAppended(bool was_empty);
  // Where the next message begins, in bytes since the link began.
  uint32_t GetEnd() const {
    return static_cast<uint32_t>(buffer_.GetTotalWrittenByteCount() +
                                 buffer_.GetQueuedByteCount());
  }
  // Stops the reactor when what is queued has waited for too long.
  void EndIfStuck();

  Socket& link_;
  Reactor& reactor_;
  WriteBuffer buffer_;
  WaitingDatagrams datagrams_;  // those of |buffer_|
  // When the queue last went from empty to non-empty or was last drained
  // (monotonic). Seconds of 0: nothing is pending.
  timespec write_started_ = {};
  LogLimiter drop_log_;
};

}  // namespace vantrel
