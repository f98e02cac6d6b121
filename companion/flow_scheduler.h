#pragma once

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <deque>
#include <list>
#include <optional>
#include <string>

#include "companion/codel.h"
#include "companion/priority.h"
#include "support/steady_time.h"

namespace vantrel {

// Decides what goes onto a link next. Control messages first. Then groups of
// flows, which are applications, share the link by deficit round robin: each
// may send one quantum in its turn, however many flows it has. The flows of a
// group share its turns in the same way. A flow that had nothing to send and
// now has something is served before the others until it has used one quantum,
// so that a look-up or a key press does not wait behind downloads (the scheme
// of RFC 8290). A group may have one quantum go first like this in each round,
// and no more than its share in all: one that opens stream after stream does
// not keep the others waiting.
//
// Groups of higher priority go before all others. What waits below them still
// has its percentage of the link, see GetPercentForSure().
//
// A Flow keeps its bytes where they are, for instance in a socket, until it is
// asked. What cannot wait there, datagrams, is kept in a QueuedFlow. Each has a
// queue of its own, so that it delays only itself, and Codel ends a queue that
// stands. Against senders that do not care all queues together have a bound,
// above which the fullest flow loses its oldest messages.
class FlowScheduler {
 public:
  class Flow;

  // Flows that share the turns of one.
  class Group {
   public:
    explicit Group(Priority priority) : priority_(priority) {}
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;
    // Its flows must have been removed before. Not to be called while one of
    // them is asked.
    ~Group();

   private:
    friend class FlowScheduler;
    using Position = std::list<Group*>::iterator;
    bool IsEmpty() const { return new_flows_.empty() && old_flows_.empty(); }

    const Priority priority_;
    std::list<Flow*> new_flows_;
    std::list<Flow*> old_flows_;
    FlowScheduler* scheduler_ = nullptr;  // null: it waits for no turn
    Position turn_;
    std::optional<Position> first_;  // none: its new flows have no precedence
    int64_t deficit_ = 0;            // bytes that it may still send in its turn
    int64_t first_left_ = 0;         // bytes of new flows that may go first
  };

  class Flow {
   public:
    Flow() = default;
    Flow(const Flow&) = delete;
    Flow& operator=(const Flow&) = delete;
    // It must have been removed from its scheduler before.
    virtual ~Flow() { assert(list_ == nullptr); }

    // Appends the next message to |out|, with at most |max_payload| bytes of
    // payload where that can be cut. False when there is none now; the flow is
    // then not asked again until Activate(). May call any function of the
    // scheduler but Take(), and may destroy the flow when it removes it first.
    [[nodiscard]] virtual bool TakeMessage(size_t max_payload,
                                           std::string* out) = 0;

   private:
    friend class FlowScheduler;
    // Gives up what the scheduler keeps of it.
    virtual void DropMessages() {}

    Group* group_ = nullptr;            // set while it has something to send
    std::list<Flow*>* list_ = nullptr;  // of the group; null: nothing to send
    std::list<Flow*>::iterator position_;
    int64_t deficit_ = 0;  // bytes that it may still send in its turn
  };

  class QueuedFlow : public Flow {
   public:
    struct message_t {
      std::string bytes;
      SteadyTime queued;
      // Of the datagram in it; none: it only tells of one.
      std::optional<size_t> payload_bytes;
    };

    bool TakeMessage(size_t max_payload, std::string* out) override;

   private:
    friend class FlowScheduler;
    void DropMessages() override;
    // What became of a message. Not called for those of a removed flow.
    virtual void OnTaken(const message_t& message) = 0;
    virtual void OnDropped(const message_t& message) = 0;

    FlowScheduler* scheduler_ = nullptr;  // set while messages wait
    std::list<QueuedFlow*>::iterator backlog_position_;
    std::deque<message_t> messages_;
    size_t bytes_ = 0;
    Codel codel_;
  };

  // What all QueuedFlows may hold together, for the smallest message costs
  // memory, too. Above this bound or that in bytes an eighth of it is dropped.
  static constexpr size_t kMaxQueuedMessages = 4096;

  // What a priority has of all that goes while it waits below others.
  static constexpr int GetPercentForSure(Priority priority) {
    return priority == Priority::kLow ? 1 : 10;
  }

  FlowScheduler() = default;
  FlowScheduler(const FlowScheduler&) = delete;
  FlowScheduler& operator=(const FlowScheduler&) = delete;

  // In bytes; also the largest payload of a message that can be cut. Not 0.
  void SetQuantum(size_t bytes) {
    assert(bytes > 0);
    quantum_ = bytes;
  }
  // What all QueuedFlows may hold together, though one message may always wait.
  void SetQueueLimit(size_t bytes) { queue_limit_ = bytes; }

  // Where control messages are appended, whole.
  std::string* GetControl() { return &control_; }
  const std::string& GetControl() const { return control_; }
  // |flow| has something to send, perhaps, as one of |group|. Both are borrowed
  // until Remove(). No effect while it waits for its turn already.
  void Activate(Flow* flow, Group* group);
  // The same for a flow that had something to send all the time and waited for
  // something else than its turn, or in another group, which it leaves. It is
  // not served before others.
  void Resume(Flow* flow, Group* group);
  // Activate(), with |message|, which waits from its time |queued| on.
  void Queue(QueuedFlow* flow, Group* group, QueuedFlow::message_t message);
  // Forgets |flow| and what it has queued. No effect on one that is not known.
  void Remove(Flow* flow);

  // Appends the next message, or all control messages, to |out|. False when
  // nothing waits.
  [[nodiscard]] bool Take(std::string* out, SteadyTime now);

  // Whether a flow and no control message is next. The flow may turn out to
  // have nothing.
  bool HasFlows() const { return control_.empty() && flow_count_ > 0; }
  size_t GetQueuedBytes() const { return queued_bytes_; }
  // Of messages that were late or too many; not of flows that were removed.
  uint64_t GetDropCount() const { return drop_count_; }

 private:
  using Flows = std::list<Flow*>;
  using Groups = std::list<Group*>;

  // The groups of one priority.
  struct level_t {
    Groups turns;  // also some that have become empty in this round
    Groups first;  // those of |turns| whose new flows have precedence
    size_t flow_count = 0;
    // Hundredths of bytes that it should have sent beside higher priorities.
    int64_t owed = 0;
  };

  level_t& GetLevel(const Group& group) {
    return levels_[static_cast<size_t>(group.priority_)];
  }
  // Whose turn it is. There are flows.
  level_t& PickLevel();
  Group& PickGroup(level_t* level);
  Flow& PickFlow(Group* group);
  // |bytes| of |level| go onto the link.
  void Share(const level_t& level, size_t bytes);
  void Enter(Group* group);
  void Leave(Group* group);
  // Lets the new flows of |group| go first, if they may.
  void Prefer(Group* group);
  void Disregard(Group* group);
  void MoveTo(Flows* list, Flow* flow);
  void Leave(Flow* flow);
  // Whether |flow| had a message. It may be destroyed afterwards.
  bool Ask(Flow* flow, std::string* out);
  // Takes the oldest message of |flow|, which has one, off its queue.
  QueuedFlow::message_t Pop(QueuedFlow* flow);
  // |message| was taken off the queue of |flow|.
  void Drop(QueuedFlow* flow, const QueuedFlow::message_t& message);
  void DropExcess();
  // When |total|, the sum of |size|, is above |limit|.
  void DropFromFullest(const size_t& total, size_t limit,
                       size_t (*size)(const QueuedFlow& flow));

  std::string control_;
  std::array<level_t, kPriorities> levels_;  // the highest first
  size_t flow_count_ = 0;
  Flow* asked_ = nullptr;  // null again when it was removed meanwhile
  std::list<QueuedFlow*> backlog_;
  SteadyTime now_{};  // of the last Take()
  size_t quantum_ = 1;
  size_t queue_limit_ = 64 * 1024;
  size_t queued_bytes_ = 0;
  size_t queued_messages_ = 0;
  uint64_t drop_count_ = 0;
};

}  // namespace vantrel
