#pragma once

#include <stddef.h>
#include <stdint.h>

#include <deque>

#include "common/host_and_port.h"

namespace vantrel {

// Which of the bytes that wait for a link are datagrams, and whether there is
// room for one more. Datagrams have no flow control: without a bound a queue of
// them would grow for ever, and with one that streams share either kind would
// keep the other from the link.
//
// Places are counts of bytes since the link began, modulo 2^32.
class WaitingDatagrams {
 public:
  // Of all datagrams together.
  static constexpr size_t kMaxBytes = 64 * 1024;
  // The part of it that is only for sources without a datagram that waits. So
  // a name look-up finds room beside somebody who sends more than the link
  // carries.
  static constexpr size_t kReservedBytes = 2 * 1024;

  // Whether |size| more bytes of |source| have room. Something larger than all
  // the room has it when nothing waits.
  bool HasRoom(const HostAndPort& source, size_t size) const;

  // The |size| bytes up to |end| are a datagram of |source|.
  void Add(const HostAndPort& source, uint32_t end, uint32_t size);
  // All bytes up to |end| have left.
  void OnWritten(uint32_t end);

  size_t GetCount() const { return datagrams_.size(); }
  size_t GetBytes() const { return bytes_; }

 private:
  struct datagram_t {
    HostAndPort source;
    uint32_t end;
    uint32_t size;
  };

  bool HasWaiting(const HostAndPort& source) const;

  std::deque<datagram_t> datagrams_;  // oldest first
  size_t bytes_ = 0;                  // one that has left in part counts whole
};

}  // namespace vantrel
