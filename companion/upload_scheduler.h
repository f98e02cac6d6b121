#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <asio/io_context.hpp>
#include <chrono>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <vector>

#include "companion/intrusive_list.h"
#include "companion/priority.h"
#include "companion/rate_limits.h"
#include "companion/write_credit.h"
#include "support/steady_time.h"
#include "support/timer.h"

namespace vantrel {

// Decides when the writes of a link's device are acknowledged, and thereby how
// applications share the way from the device. There all streams take turns, one
// write each: many streams of one application take the link from the one stream
// of another. So while several applications want more than the link carries,
// each gets as much credit as the others: what it has under way, which is what
// it may have written and has not come yet, is kept below a window. That is
// what one stream may have under way, or more where the link holds more than
// that. All other writes are acknowledged at once.
//
// An application wants more than the link carries when it uses its credit as
// soon as it gets it. What of the credit is used later than that is not under
// way. How long a write takes is the age of the credit that it uses; when it
// gets longer because the window has grown, the window was large enough.
class UploadScheduler {
 public:
  class Flow;

  // The uploads of one application that have the same priority.
  class Group {
   public:
    explicit Group(Priority priority) : priority_(priority) {}
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;
    ~Group();

   private:
    friend class UploadScheduler;
    const Priority priority_;
    IntrusiveList<Flow> flows_;
    std::list<Flow*> waiting_;              // those with writes to acknowledge
    size_t under_way_ = 0;                  // bytes
    UploadScheduler* scheduler_ = nullptr;  // set while it is a busy one
    std::list<Group*>::iterator position_;
    SteadyTime busy_until_{};
  };

  // One stream.
  class Flow : private IntrusiveList<Flow>::Place {
   public:
    class Owner {
     public:
      virtual ~Owner() = default;
      // |count| of the writes are to be acknowledged. Nothing may be sent at
      // once, and no flow may go.
      virtual void OnAcknowledge(size_t count) = 0;
    };

    // So many writes the device may send at first.
    static constexpr size_t kCredit = WriteCredit::kWrites;

    Flow(UploadScheduler& scheduler, Group& group, Owner& owner);
    Flow(const Flow&) = delete;
    Flow& operator=(const Flow&) = delete;
    ~Flow() { Close(); }

    void SetGroup(Group* group);
    // |on_grant| is to call OnGrant(), which is worth a try afterwards, too.
    void SetLimits(const std::vector<std::shared_ptr<RateLimiter>>& limiters,
                   const std::function<void()>& on_grant) {
      limits_.Set(limiters, on_grant);
    }
    // A write of |bytes| has come.
    void OnWrite(size_t bytes, SteadyTime now);
    // Of the writes that have come the next |count| are delivered.
    void OnDelivered(size_t count, SteadyTime now);
    void OnGrant(SteadyTime now);
    size_t GetUnacknowledgedCount() const { return credit_.GetWriteCount(); }
    // Nothing is acknowledged any more. What was not yet counts for the limits
    // all the same.
    void Close();

   private:
    friend class UploadScheduler;
    friend class IntrusiveList<Flow>;
    void Join(Group* group);
    void LeaveGroup();
    void Enter();
    void Acknowledge(size_t count, SteadyTime now);

    UploadScheduler& scheduler_;
    Owner& owner_;
    Group* group_ = nullptr;
    std::optional<std::list<Flow*>::iterator> waits_at_;
    RateLimits limits_;
    // What of it was given again is probably under way.
    WriteCredit credit_;
    size_t delivered_ = 0;  // how many of its writes are
  };

  // |on_time| is to call OnTime(). |loop| outlives it.
  UploadScheduler(asio::io_context& loop, std::function<void()> on_time)
      : timer_(loop, std::move(on_time)) {}
  UploadScheduler(const UploadScheduler&) = delete;
  UploadScheduler& operator=(const UploadScheduler&) = delete;
  ~UploadScheduler() { assert(busy_.empty()); }

  // To be called when the timer has come, and only needed while something is
  // held back.
  void OnTime(SteadyTime now);
  // Bytes that each of several busy applications may have under way.
  size_t GetWindow() const { return window_; }

 private:
  using Age = SteadyTime::duration;

  // A write of |bytes| has used credit of this age.
  void OnCreditUsed(Group* group, size_t bytes, Age age, SteadyTime now);
  // A new stream has written as much as it may.
  void OnCreditUsedUp(Group* group, SteadyTime now);
  void MarkBusy(Group* group, Age age, SteadyTime now);
  void BeginSharing(SteadyTime now);
  void EndRound(SteadyTime now);
  void ForgetUnused(SteadyTime now);
  void AdaptWindow(SteadyTime now);
  // Notes what lower priorities have for sure beside a write of |bytes|.
  void Share(size_t bytes);
  Priority GetHighestPriority() const;
  bool IsSharing() const { return busy_.size() > 1; }
  bool MayAcknowledge(const Group& group) const;
  void Release(Group* group, SteadyTime now);
  void ReleaseAll(SteadyTime now);
  void Unlist(Group* group);

  // The window of a link that is full with one stream of each application.
  static constexpr size_t kMinWindow = 32 * 1024;

  std::list<Group*> busy_;
  size_t window_ = kMinWindow;
  bool is_probing_ = true;        // it grows fast until it was too large
  std::optional<Age> base_age_;   // the least with small windows
  std::optional<Age> last_age_;   // the least of the last round
  std::optional<Age> round_age_;  // the least of this one
  SteadyTime round_end_{};
  SteadyTime settled_{};  // when the last change of the window shows
  SteadyTime shared_{};   // when several were busy last
  // Hundredths of bytes that each priority should have had beside higher ones.
  std::array<int64_t, kPriorities> owed_{};
  Timer timer_;
  bool is_timed_ = false;
};

}  // namespace vantrel
