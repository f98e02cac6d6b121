#pragma once

#include <stdint.h>

#include <asio/io_context.hpp>
#include <functional>
#include <stdexcept>
#include <utility>

#include "support/loop_objects.h"
#include "support/steady_time.h"

namespace vantrel {

// To throw when a signal to stop has come in while something was waited for.
class Interrupted : public std::runtime_error {
 public:
  Interrupted() : std::runtime_error("interrupted") {}
};

// The one loop of the process, and its signals: SIGINT, SIGTERM and SIGCHLD are
// taken over, SIGPIPE is ignored. What is to run in turns with it waits on
// GetContext(); what comes one after the other uses WaitFor().
class EventLoop {
 public:
  enum class Readiness { kReadable, kWritable };
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

  // Runs the loop until |fd|, which is borrowed and may be -1 for none, is
  // ready or broken, a signal to stop comes in, or |end| has passed. Throws
  // std::system_error when the system cannot watch one more descriptor.
  Wake WaitFor(int fd, Readiness readiness, SteadyTime end);
  // The same for who cannot go on otherwise: throws Interrupted, or
  // std::system_error for ETIMEDOUT.
  void AwaitReady(int fd, Readiness readiness, SteadyTime end);
  // Runs the loop until |is_done|, which is asked after each handler. Throws
  // likewise.
  void WaitUntil(const std::function<bool()>& is_done, SteadyTime end);

 private:
  void AwaitSignal();
  // Until |is_done|, |end| or a signal to stop; kReady for the first.
  Wake Run(const std::function<bool()>& is_done, SteadyTime end);
  static void ThrowUnlessReady(Wake wake);

  asio::io_context context_{1};  // one thread
  LoopSignals signals_;
  SignalHandler handler_;
  int stop_signal_ = 0;
  uint32_t stop_signal_count_ = 0;
};

}  // namespace vantrel
