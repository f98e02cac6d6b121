#include "tools/launch/event_loop.h"

#include <signal.h>

#include <optional>
#include <system_error>

#include "support/descriptor.h"
#include "support/system_failure.h"
#include "support/timer.h"

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
  bool is_ready = false;
  std::optional<Descriptor> descriptor;
  if (fd >= 0) {
    UniqueFd own = Duplicate(fd);
    if (own.Get() < 0) throw SystemFailure("cannot wait");
    const auto on_ready = [&is_ready] { is_ready = true; };
    descriptor.emplace(context_, std::move(own), on_ready, on_ready);
    readiness == Readiness::kReadable ? descriptor->WaitReadable()
                                      : descriptor->WaitWritable();
  }
  return Run([&is_ready] { return is_ready; }, end);
}

EventLoop::Wake EventLoop::Run(const std::function<bool()>& is_done,
                               SteadyTime end) {
  const uint32_t signals_before = stop_signal_count_;
  bool is_late = false;
  Timer timer(context_, [&is_late] { is_late = true; });
  timer.WaitUntil(end);
  while (!is_done() && !is_late && stop_signal_count_ == signals_before) {
    context_.run_one();
  }
  return is_done() ? Wake::kReady : is_late ? Wake::kTimeout : Wake::kSignal;
}

void EventLoop::AwaitReady(int fd, Readiness readiness, SteadyTime end) {
  ThrowUnlessReady(WaitFor(fd, readiness, end));
}

void EventLoop::WaitUntil(const std::function<bool()>& is_done,
                          SteadyTime end) {
  ThrowUnlessReady(Run(is_done, end));
}

void EventLoop::ThrowUnlessReady(Wake wake) {
  switch (wake) {
    case Wake::kReady:
      return;
    case Wake::kSignal:
      throw Interrupted();
    case Wake::kTimeout:
      throw SystemFailure(ETIMEDOUT);
  }
}

}  // namespace vantrel
