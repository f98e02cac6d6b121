#include "support/timer.h"

#include <utility>

namespace vantrel {

Timer::Timer(asio::io_context& loop, Handler on_time)
    : on_time_(std::move(on_time)), timer_(loop) {}

void Timer::WaitFor(SteadyTime::duration time) {
  WaitUntil(GetSteadyTime() + time);
}

void Timer::WaitUntil(SteadyTime time) {
  ++wait_;
  timer_.expires_at(time);
  timer_.async_wait(
      lifetime_.MakeHandler([this, wait = wait_](const asio::error_code&) {
        if (wait == wait_) on_time_();
      }));
}

void Timer::Cancel() {
  ++wait_;
  timer_.cancel();
}

}  // namespace vantrel
