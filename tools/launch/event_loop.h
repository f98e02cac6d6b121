#pragma once

#include <asio/io_context.hpp>
#include <asio/posix/descriptor_base.hpp>
#include <asio/signal_set.hpp>
#include <functional>

#include "support/steady_time.h"

namespace vantrel {

// The one loop of the process, and its signals: SIGINT, SIGTERM and SIGCHLD are
// taken over, SIGPIPE is ignored. What is to run in turns with it waits on
// GetContext(); what comes one after the other uses WaitFor().
class EventLoop {
 public:
  // Borrowed descriptors wait as one of these.
  using Readiness = asio::posix::descriptor_base::wait_type;
  using SignalHandler = std::function<void(int signal)>;
  enum class Wake { kReady, kTimeout, kSignal };

  EventLoop();
  EventLoop(const EventLoop&) = delete;
  EventLoop& operator=(const EventLoop&) = delete;

  asio::io_context& GetContext() { return context_; }

  // |handler| gets every signal until it is replaced by an empty one. While
  // there is none, SIGINT and SIGTERM are kept for GetStopSignal().
  void SetSignalHandler(SignalHandler handler) {
    handler_ = std::move(handler);
  }
  // The last signal to stop that nobody handled, or 0.
  int GetStopSignal() const { return stop_signal_; }

  // Runs the loop until |fd|, which may be -1 for none, is ready or broken, a
  // signal to stop comes in, or |end| has passed.
  Wake WaitFor(int fd, Readiness readiness, SteadyTime end);

 private:
  void AwaitSignal();

  asio::io_context context_{1};  // one thread
  asio::signal_set signals_;
  SignalHandler handler_;
  int stop_signal_ = 0;
  uint32_t stop_signal_count_ = 0;
};

}  // namespace vantrel
