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

FlowScheduler::Group::~Group() {
  assert(IsEmpty());
  if (scheduler_ != nullptr) scheduler_->Leave(this);
}

void FlowScheduler::Activate(Flow* flow, Group* group) {
  if (flow->list_ != nullptr) return;
  flow->deficit_ = static_cast<int64_t>(quantum_);
  flow->group_ = group;
  MoveTo(&group->new_flows_, flow);
  Prefer(group);
}

void FlowScheduler::Resume(Flow* flow, Group* group) {
  if (flow->list_ != nullptr && flow->group_ == group) return;
  Leave(flow);
  flow->group_ = group;
  MoveTo(&group->old_flows_, flow);
}

void FlowScheduler::Queue(QueuedFlow* flow, Group* group,
                          QueuedFlow::message_t message) {
  if (flow->messages_.empty()) {
    flow->scheduler_ = this;
    flow->backlog_position_ = backlog_.insert(backlog_.end(), flow);
  }
  flow->bytes_ += message.bytes.size();
  queued_bytes_ += message.bytes.size();
  ++queued_messages_;
  flow->messages_.push_back(std::move(message));
  Activate(flow, group);
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
    if (flow_count_ == 0) return false;
    level_t& level = PickLevel();
    Group& group = PickGroup(&level);
    const size_t size_before = out->size();
    if (!Ask(&PickFlow(&group), out)) continue;
    const size_t size = out->size() - size_before;
    group.deficit_ -= static_cast<int64_t>(size);
    if (group.first_) group.first_left_ -= static_cast<int64_t>(size);
    Share(level, size);
    return true;
  }
  out->append(control_);
  control_.clear();
  return true;
}

FlowScheduler::level_t& FlowScheduler::PickLevel() {
  level_t* picked = nullptr;
  for (level_t& level : levels_) {
    if (level.flow_count == 0) continue;
    if (picked == nullptr || level.owed > 0) picked = &level;
  }
  assert(picked != nullptr);
  return *picked;
}

FlowScheduler::Group& FlowScheduler::PickGroup(level_t* level) {
  while (!level->first.empty()) {
    Group& group = *level->first.front();
    if (!group.new_flows_.empty() && group.first_left_ > 0) return group;
    Disregard(&group);
  }
  while (true) {
    Group& group = *level->turns.front();
    if (group.IsEmpty()) {
      Leave(&group);
      continue;
    }
    if (group.deficit_ > 0) return group;
    group.deficit_ += static_cast<int64_t>(quantum_);
    group.first_left_ = static_cast<int64_t>(quantum_);
    Prefer(&group);
    level->turns.splice(level->turns.end(), level->turns, group.turn_);
  }
}

FlowScheduler::Flow& FlowScheduler::PickFlow(Group* group) {
  while (true) {
    const bool has_new = !group->new_flows_.empty();
    Flow& flow = *(has_new ? group->new_flows_ : group->old_flows_).front();
    if (flow.deficit_ > 0) return flow;
    flow.deficit_ += static_cast<int64_t>(quantum_);
    MoveTo(&group->old_flows_, &flow);
  }
}

bool FlowScheduler::Ask(Flow* flow, std::string* out) {
  const size_t size_before = out->size();
  asked_ = flow;
  const bool has_message = flow->TakeMessage(quantum_, out);
  if (asked_ == nullptr) return has_message;
  asked_ = nullptr;
  Group* const group = flow->group_;
  if (has_message) {
    flow->deficit_ -= static_cast<int64_t>(out->size() - size_before);
  } else if (flow->list_ == &group->new_flows_ && !group->old_flows_.empty()) {
    // It stays for one round. Were it gone, it could come back as a new flow at
    // once, and the old ones would starve. The same holds for groups: an empty
    // one stays until its turn.
    MoveTo(&group->old_flows_, flow);
  } else {
    Leave(flow);
  }
  return has_message;
}

// The highest one takes what it wants, and owes nobody anything for that.
void FlowScheduler::Share(const level_t& level, size_t bytes) {
  bool is_first = true;
  const auto sent = static_cast<int64_t>(bytes);
  for (size_t i = 0; i < levels_.size(); ++i) {
    level_t& each = levels_[i];
    if (&each != &level && each.flow_count == 0) continue;
    if (!is_first) {
      each.owed += sent * GetPercentForSure(static_cast<Priority>(i));
      if (&each == &level) each.owed -= sent * 100;
    }
    is_first = false;
  }
}

void FlowScheduler::Enter(Group* group) {
  Groups& turns = GetLevel(*group).turns;
  group->scheduler_ = this;
  group->turn_ = turns.insert(turns.end(), group);
  group->deficit_ = group->first_left_ = static_cast<int64_t>(quantum_);
}

void FlowScheduler::Leave(Group* group) {
  Disregard(group);
  GetLevel(*group).turns.erase(group->turn_);
  group->scheduler_ = nullptr;
}

void FlowScheduler::Prefer(Group* group) {
  const bool may_go = !group->new_flows_.empty() && group->first_left_ > 0;
  if (group->first_ || !may_go) return;
  Groups& first = GetLevel(*group).first;
  group->first_ = first.insert(first.end(), group);
}

void FlowScheduler::Disregard(Group* group) {
  if (!group->first_) return;
  GetLevel(*group).first.erase(*group->first_);
  group->first_.reset();
}

void FlowScheduler::MoveTo(Flows* list, Flow* flow) {
  if (flow->list_ != nullptr) {
    list->splice(list->end(), *flow->list_, flow->position_);
    flow->list_ = list;
    return;
  }
  flow->position_ = list->insert(list->end(), flow);
  flow->list_ = list;
  if (flow->group_->scheduler_ == nullptr) Enter(flow->group_);
  ++GetLevel(*flow->group_).flow_count;
  ++flow_count_;
}

void FlowScheduler::Leave(Flow* flow) {
  if (flow->list_ == nullptr) return;
  flow->list_->erase(flow->position_);
  flow->list_ = nullptr;
  level_t& level = GetLevel(*flow->group_);
  --flow_count_;
  if (--level.flow_count > 0) return;
  // Nobody is left whom a group that comes back at once could overtake.
  while (!level.turns.empty()) Leave(level.turns.front());
}

}  // namespace vantrel
