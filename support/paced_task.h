#pragma once

#include <asio/io_context.hpp>
#include <functional>

#include "support/steady_time.h"
#include "support/timer.h"

namespace vantrel {

// A piece of work that is asked for whenever something has changed, however
// often that is, and done at most once a second: at once when the last time is
// as long ago, else as soon as it is.
class PacedTask {
 public:
  static constexpr std::chrono::seconds kPause{1};

  // |loop| outlives this. |work| may ask for itself.
  PacedTask(asio::io_context& loop, std::function<void()> work);

  void Ask();
  // Does now what was asked for and still waits.
  void Finish();

 private:
  void Run();

  const std::function<void()> work_;
  Timer timer_;
  SteadyTime next_{};  // not before
  bool is_asked_ = false;
};

}  // namespace vantrel
