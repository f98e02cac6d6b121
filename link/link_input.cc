#include "link/link_input.h"

#include <errno.h>
#include <string.h>

#include "common/log.h"

namespace vantrel {

size_t LinkInput::ReadInto(const room_t& room) {
  // Of no room a read makes 0, as of the end of the stream.
  const int count = link_.Read(room.begin, room.size);
  if (count > 0) return static_cast<size_t>(count);
  if (count < 0 && errno == EAGAIN) return 0;
  if (count < 0) {
    LOGW("[B] Error reading from %s: %s", name_, strerror(errno));
  }
  reactor_.Stop();
  return 0;
}

}  // namespace vantrel
