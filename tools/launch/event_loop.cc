#include "tools/launch/event_loop.h"

#include <signal.h>

#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <system_error>

namespace vantrel {

EventLoop::EventLoop() : signals_(context_, SIGINT, SIGTERM, SIGCHLD) {
  signal(SIGPIPE, SIG_IGN);
  AwaitSignal();
}

void EventLoop::AwaitSignal() {
  signals_.async_wait([this](const std::error_code& error, int signal) {
    if (error) return;
    AwaitSignal();
    if (handler_) {
      handler_(signal);
    } else if (signal != SIGCHLD) {
      stop_signal_ = signal;
      ++stop_signal_count_;
    }
  });
}

EventLoop::Wake EventLoop::WaitFor(int fd, Readiness readiness,
                                   SteadyTime end) {
  const uint32_t signals_before = stop_signal_count_;
  bool is_ready = false;
  bool is_late = false;
  asio::posix::stream_descriptor descriptor(context_);
  if (fd >= 0) {
    descriptor.assign(fd);
    descriptor.async_wait(readiness, [&is_ready](const std::error_code& error) {
      is_ready = !error;
    });
  }
  asio::steady_timer timer(context_, end);
  timer.async_wait(
      [&is_late](const std::error_code& error) { is_late = !error; });
  while (!is_ready && !is_late && stop_signal_count_ == signals_before) {
    context_.run_one();
  }
  const Wake wake = is_ready  ? Wake::kReady
                    : is_late ? Wake::kTimeout
                              : Wake::kSignal;
  if (fd >= 0) descriptor.release();
  timer.cancel();
  // Runs the handlers that were cancelled, while what they refer to is there.
  context_.poll();
  return wake;
}

}  // namespace vantrel
