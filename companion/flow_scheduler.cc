#include "companion/flow_scheduler.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace vantrel {

bool FlowScheduler::QueuedFlow::TakeMessage(size_t, std::string* out) {
  while (!messages_.empty()) {
    const message_t message = scheduler_->Pop(this);
    const SteadyTime now = scheduler_->now_;
    if (!codel_.ShouldDrop(now - message.queued, message.bytes.size(), bytes_,
                           now)) {
      out->append(message.bytes);
      OnTaken(message);
      return true;
    }
    scheduler_->Drop(this, message);
  }
  return false;
}

void FlowScheduler::QueuedFlow::DropMessages() {
  while (!messages_.empty()) scheduler_->Pop(this);
}

void FlowScheduler::Activate(Flow* flow) {
  if (flow->list_ != nullptr) return;
  flow->deficit_ = static_cast<int64_t>(quantum_);
  MoveTo(&new_flows_, flow);
}

void FlowScheduler::Queue(QueuedFlow* flow, QueuedFlow::message_t message) {
  if (flow->messages_.empty()) {
    flow->scheduler_ = this;
    flow->backlog_position_ = backlog_.insert(backlog_.end(), flow);
  }
  flow->bytes_ += message.bytes.size();
  queued_bytes_ += message.bytes.size();
  ++queued_messages_;
  flow->messages_.push_back(std::move(message));
  Activate(flow);
  DropExcess();
}

FlowScheduler::QueuedFlow::message_t FlowScheduler::Pop(QueuedFlow* flow) {
  QueuedFlow::message_t message = std::move(flow->messages_.front());
  flow->messages_.pop_front();
  flow->bytes_ -= message.bytes.size();
  queued_bytes_ -= message.bytes.size();
  --queued_messages_;
  if (flow->messages_.empty()) backlog_.erase(flow->backlog_position_);
  return message;
}

void FlowScheduler::Drop(QueuedFlow* flow,
                         const QueuedFlow::message_t& message) {
  ++drop_count_;
  flow->OnDropped(message);
}

void FlowScheduler::DropExcess() {
  DropFromFullest(queued_messages_, kMaxQueuedMessages,
                  [](const QueuedFlow& flow) { return flow.messages_.size(); });
  DropFromFullest(queued_bytes_, queue_limit_,
                  [](const QueuedFlow& flow) { return flow.bytes_; });
}

// Somewhat more than the excess, since to find the fullest flow all are looked
// at: a flood of many senders would cost that for each message.
void FlowScheduler::DropFromFullest(const size_t& total, size_t limit,
                                    size_t (*size)(const QueuedFlow& flow)) {
  if (total <= limit || queued_messages_ == 1) return;
  const auto is_less = [size](const QueuedFlow* a, const QueuedFlow* b) {
    return size(*a) < size(*b);
  };
  std::vector<QueuedFlow*> heap(backlog_.begin(), backlog_.end());
  std::make_heap(heap.begin(), heap.end(), is_less);
  while (total > limit - limit / 8 && queued_messages_ > 1) {
    std::pop_heap(heap.begin(), heap.end(), is_less);
    Drop(heap.back(), Pop(heap.back()));
    if (heap.back()->messages_.empty()) {
      heap.pop_back();
    } else {
      std::push_heap(heap.begin(), heap.end(), is_less);
    }
  }
}

void FlowScheduler::Remove(Flow* flow) {
  if (flow == asked_) asked_ = nullptr;
  flow->DropMessages();
  Leave(flow);
}

bool FlowScheduler::Take(std::string* out, SteadyTime now) {
  now_ = now;
  while (control_.empty()) {
    Flows* const flows = new_flows_.empty() ? &old_flows_ : &new_flows_;
    if (flows->empty()) return false;
    Flow* const flow = flows->front();
    if (flow->deficit_ > 0) {
      if (Ask(flow, out)) return true;
    } else {
      flow->deficit_ += static_cast<int64_t>(quantum_);
      MoveTo(&old_flows_, flow);
    }
  }
  out->append(control_);
  control_.clear();
  return true;
}

bool FlowScheduler::Ask(Flow* flow, std::string* out) {
  const size_t size_before = out->size();
  asked_ = flow;
  const bool has_message = flow->TakeMessage(quantum_, out);
  if (asked_ == nullptr) return has_message;
  asked_ = nullptr;
  if (has_message) {
    flow->deficit_ -= static_cast<int64_t>(out->size() - size_before);
  } else if (flow->list_ == &new_flows_ && !old_flows_.empty()) {
    // It stays for one round. Were it gone, it could come back as a new flow at
    // once, and the old ones would starve.
    MoveTo(&old_flows_, flow);
  } else {
    Leave(flow);
  }
  return has_message;
}

void FlowScheduler::MoveTo(Flows* list, Flow* flow) {
  Leave(flow);
  flow->position_ = list->insert(list->end(), flow);
  flow->list_ = list;
}

void FlowScheduler::Leave(Flow* flow) {
  if (flow->list_ == nullptr) return;
  flow->list_->erase(flow->position_);
  flow->list_ = nullptr;
}

}  // namespace vantrel
