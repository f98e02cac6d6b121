#include "companion/turn_queue.h"

#include <asio/post.hpp>
#include <utility>

namespace vantrel {

TurnQueue::Member::Member(TurnQueue& queue, std::function<void()> on_turn)
    : queue_(queue), on_turn_(std::move(on_turn)) {}

TurnQueue::Member::~Member() { Leave(); }

void TurnQueue::Member::Enter() {
  if (IsWaiting()) return;
  position_ = queue_.members_.insert(queue_.members_.end(), this);
  queue_.GoOn();
}

void TurnQueue::Member::Leave() {
  if (!IsWaiting()) return;
  queue_.members_.erase(*position_);
  position_.reset();
}

// The loop looks at its descriptors between two handlers that it was given like
// this, and handles what is ready before the second.
void TurnQueue::GoOn() {
  if (is_going_on_ || members_.empty()) return;
  asio::post(loop_, [this] { GiveTurn(); });
  is_going_on_ = true;
}

void TurnQueue::GiveTurn() {
  is_going_on_ = false;
  if (members_.empty()) return;
  Member& member = *members_.front();
  member.Leave();
  GoOn();
  member.on_turn_();
}

}  // namespace vantrel
