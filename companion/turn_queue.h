#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <list>
#include <optional>

namespace vantrel {

// Those that have more to do than one turn allows. The loop gives one of them a
// turn each time it has handled everything else that was ready: whoever needs
// little waits for one turn, however many wait here for theirs.
class TurnQueue {
 public:
  // Of the whole time that a message may take through this program, 32 devices
  // that begin with a whole turn at the same moment use less than a half.
  static constexpr std::chrono::microseconds kTurn{500};

  // Somebody who may wait for a turn.
  class Member {
   public:
    // |queue| outlives it. |on_turn| may destroy it as its last act.
    Member(TurnQueue& queue, std::function<void()> on_turn);
    Member(const Member&) = delete;
    Member& operator=(const Member&) = delete;
    ~Member();

    // Each turn follows one call; no effect while one is waited for.
    void Enter();
    void Leave();
    bool IsWaiting() const { return position_.has_value(); }

   private:
    friend class TurnQueue;
    TurnQueue& queue_;
    const std::function<void()> on_turn_;
    std::optional<std::list<Member*>::iterator> position_;
  };

  // |loop| outlives it, and does not run afterwards.
  explicit TurnQueue(asio::io_context& loop) : loop_(loop) {}
  TurnQueue(const TurnQueue&) = delete;
  TurnQueue& operator=(const TurnQueue&) = delete;

  // After a handler of the loop has failed: it may have been ours.
  void GoOn();

 private:
  void GiveTurn();

  asio::io_context& loop_;
  std::list<Member*> members_;
  bool is_going_on_ = false;
};

}  // namespace vantrel
