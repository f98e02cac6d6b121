#pragma once

#include <stddef.h>

#include "reactor/reactor.h"
#include "reactor/socket.h"

namespace vantrel {

// The receiving side that both link protocols share: one turn of reading. A
// member of its link, which |link| is and which outlives it.
class LinkInput {
 public:
  struct room_t {
    char* begin;
    size_t size;
  };

  // |name| is what the log calls the link; it outlives this.
  LinkInput(const Socket& link, Reactor& reactor, const char* name)
      : link_(link), reactor_(reactor), name_(name) {}

  // Reads until nothing is left, or until others must have their turn. Asks
  // |get_room|() where to before each read, and calls |handle|(count) after it.
  // At the end of the stream, and after a failure, which is logged, it stops
  // the reactor. So does a lack of room: a message that can never complete has
  // filled all of it. That is noticed in this turn, whatever else there is.
  template <typename GetRoom, typename Handle>
  void ReadTurn(GetRoom get_room, Handle handle) {
    size_t received = 0;
    for (int reads = 0;; ++reads) {
      const room_t room = get_room();
      const bool is_over =
          reads == Reactor::kMaxReads || received >= Reactor::kMaxReadBytes;
      if (is_over && room.size > 0) return;
      const size_t count = ReadInto(room);
      if (count == 0) return;
      received += count;
      handle(count);
      // The next read would only tell that nothing is left.
      if (count < room.size) return;
    }
  }

 private:
  // 0 where there is nothing for now, and where the link has ended.
  size_t ReadInto(const room_t& room);

  const Socket& link_;
  Reactor& reactor_;
  const char* const name_;
};

}  // namespace vantrel
