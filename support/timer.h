#pragma once

#include <stdint.h>

#include <asio/io_context.hpp>
#include <functional>

#include "support/lifetime.h"
#include "support/loop_objects.h"
#include "support/steady_time.h"

namespace vantrel {

// One moment that the program's loop waits for, at most.
class Timer {
 public:
  using Handler = std::function<void()>;

  // |loop| outlives it. |on_time| may destroy it as its last act.
  Timer(asio::io_context& loop, Handler on_time);
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  // Each of these takes the place of the moment before, even if that has come
  // already and its handler was not called yet. So does the end of this object.
  void WaitFor(SteadyTime::duration time);
  void WaitUntil(SteadyTime time);
  void Cancel();

 private:
  const Handler on_time_;
  LoopTimer timer_;
  uint64_t wait_ = 0;  // the number of the last one
  const Lifetime lifetime_;
};

}  // namespace vantrel
