#include "support/paced_task.h"

#include <utility>

namespace vantrel {

PacedTask::PacedTask(asio::io_context& loop, std::function<void()> work)
    : work_(std::move(work)), timer_(loop, [this] { Finish(); }) {}

void PacedTask::Ask() {
  if (std::exchange(is_asked_, true)) return;
  if (GetSteadyTime() >= next_) {
    Run();
    return;
  }
  timer_.WaitUntil(next_);
}

void PacedTask::Run() {
  is_asked_ = false;
  next_ = GetSteadyTime() + kPause;
  work_();
}

void PacedTask::Finish() {
  if (is_asked_) Run();
}

}  // namespace vantrel
