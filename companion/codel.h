#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <optional>

#include "support/steady_time.h"

namespace vantrel {

// Says which messages of one queue to drop, by the law of RFC 8289 (CoDel). A
// burst is borne: its queue drains by itself. A queue stands when all that was
// taken from it during one interval had waited longer than the target. Then
// messages are dropped from its head, each sooner after the one before, until
// the sender gives way. What is dropped last is heard of last, so the head.
class Codel {
 public:
  static constexpr std::chrono::milliseconds kTarget{5};
  // A sender needs about so long to hear of a loss and to slow down.
  static constexpr std::chrono::milliseconds kInterval{100};
  // So little is no queue, however long it takes: two packets, as the internet
  // has them. Where they need more time than the target, that counts instead.
  static constexpr size_t kMinQueueBytes = 3000;

  // Whether to drop the message of |bytes| at the head, which has waited for
  // |sojourn|, with |bytes_behind| in its queue behind it. To be asked once for
  // each message that is taken. Never true for the last one.
  [[nodiscard]] bool ShouldDrop(SteadyTime::duration sojourn, size_t bytes,
                                size_t bytes_behind, SteadyTime now);

 private:
  bool IsStanding(bool is_late, SteadyTime now);
  void BeginDropping(SteadyTime now);
  SteadyTime::duration GetPause() const;

  // When the queue will have stood for an interval; null while it does not.
  std::optional<SteadyTime> stands_at_;
  bool is_dropping_ = false;
  uint32_t count_ = 0;        // of drops; the more, the shorter the pauses
  uint32_t first_count_ = 0;  // what it was in BeginDropping()
  SteadyTime next_drop_{};
};

}  // namespace vantrel
