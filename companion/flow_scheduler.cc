#include "companion/flow_scheduler.h"

#include <algorithm>
#include <utility>

namespace vantrel {

bool FlowScheduler::QueuedFlow::TakeMessage(size_t, std::string* out) {
  if (messages_.empty()) return false;
  const size_t size = messages_.front().size();
  out->append(messages_.front());
  messages_.pop_front();
  bytes_ -= size;
  scheduler_->queued_bytes_ -= size;
  --scheduler_->queued_messages_;
  if (messages_.empty()) scheduler_->backlog_.remove(this);
  return true;
}

void FlowScheduler::Activate(Flow* flow) {
  if (flow->list_ != nullptr) return;
  flow->deficit_ = static_cast<int64_t>(quantum_);
  MoveTo(&new_flows_, flow);
}

void FlowScheduler::Queue(QueuedFlow* flow, std::string message) {
  if (flow->messages_.empty()) {
    flow->scheduler_ = this;
    backlog_.push_back(flow);
  }
  flow->bytes_ += message.size();
  queued_bytes_ += message.size();
  ++queued_messages_;
  flow->messages_.push_back(std::move(message));
  Activate(flow);
  while (queued_bytes_ > queue_limit_ && queued_messages_ > 1) DropOldest();
}

void FlowScheduler::DropOldest() {
  QueuedFlow* const fullest =
      *std::max_element(backlog_.begin(), backlog_.end(),
                        [](const QueuedFlow* a, const QueuedFlow* b) {
                          return a->bytes_ < b->bytes_;
                        });
  std::string dropped;
  if (fullest->TakeMessage(0, &dropped)) ++drop_count_;
}

void FlowScheduler::Remove(Flow* flow) {
  if (flow == asked_) asked_ = nullptr;
  Leave(flow);
}

void FlowScheduler::Remove(QueuedFlow* flow) {
  std::string dropped;
  while (flow->TakeMessage(0, &dropped)) dropped.clear();
  Remove(static_cast<Flow*>(flow));
}

bool FlowScheduler::Take(std::string* out) {
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
  flow->list_ = list;
  flow->position_ = list->insert(list->end(), flow);
}

void FlowScheduler::Leave(Flow* flow) {
  if (flow->list_ == nullptr) return;
  flow->list_->erase(flow->position_);
  flow->list_ = nullptr;
}

}  // namespace vantrel
