#include "companion/upload_scheduler.h"

#include <algorithm>
#include <utility>

#include "companion/flow_scheduler.h"

namespace vantrel {
namespace {

using std::chrono::milliseconds;

// A smaller write was all that the application had at that moment.
constexpr size_t kFullWriteBytes = 2048;
constexpr milliseconds kMinRound{50};
constexpr milliseconds kMaxRound{500};
// Whoever has uploaded stays busy for so long, and some writes more.
constexpr milliseconds kBusyTime{500};
// Older ages say nothing about the link any more.
constexpr milliseconds kForgetTime{10'000};
// By so much an age may differ on an idle link.
constexpr milliseconds kJitter{2};
constexpr size_t kMaxWindow = 16 << 20;
// Who wants nothing for a while does not save more than this.
constexpr int64_t kMaxOwed = 100 * 4096;

}  // namespace

UploadScheduler::Group::~Group() {
  assert(flows_.IsEmpty());
  if (scheduler_ != nullptr) scheduler_->Unlist(this);
}

UploadScheduler::Flow::Flow(UploadScheduler& scheduler, Group& group,
                            Owner& owner)
    : scheduler_(scheduler), owner_(owner) {
  Join(&group);
}

void UploadScheduler::Flow::Join(Group* group) {
  group_ = group;
  group->flows_.Append(this);
  group->under_way_ += credit_.GetBytesGiven();
}

void UploadScheduler::Flow::LeaveGroup() {
  group_->under_way_ -= credit_.GetBytesGiven();
  if (waits_at_) group_->waiting_.erase(*waits_at_);
  waits_at_.reset();
  Leave();
  group_ = nullptr;
}

void UploadScheduler::Flow::SetGroup(Group* group) {
  if (group_ == nullptr || group == group_) return;
  LeaveGroup();
  Join(group);
}

void UploadScheduler::Flow::Close() {
  if (group_ == nullptr) return;
  limits_.Charge(credit_.GetBytesOfWrites());
  limits_.Clear();
  LeaveGroup();
}

void UploadScheduler::Flow::OnWrite(size_t bytes, SteadyTime now) {
  if (credit_.GetUnusedCount() > 0) {
    credit_.AddWrite(bytes);
    if (credit_.GetUnusedCount() == 0) scheduler_.OnCreditUsedUp(group_, now);
    return;
  }
  const WriteCredit::used_t used = credit_.UseGiven(now);
  credit_.AddWrite(bytes);
  group_->under_way_ -= used.bytes;
  scheduler_.OnCreditUsed(group_, bytes, used.age, now);
}

void UploadScheduler::Flow::OnDelivered(size_t count, SteadyTime now) {
  delivered_ += count;
  OnGrant(now);
}

void UploadScheduler::Flow::OnGrant(SteadyTime now) {
  if (group_ == nullptr || delivered_ == 0) return;
  const bool is_free = !scheduler_.IsSharing() && limits_.IsEmpty();
  if (is_free && !waits_at_) return Acknowledge(delivered_, now);
  if (!waits_at_) Enter();
  scheduler_.Release(group_, now);
}

void UploadScheduler::Flow::Enter() {
  waits_at_ = group_->waiting_.insert(group_->waiting_.end(), this);
}

void UploadScheduler::Flow::Acknowledge(size_t count, SteadyTime now) {
  for (size_t i = 0; i < count; ++i) {
    const size_t bytes = credit_.GetWriteBytes();
    limits_.Charge(bytes);
    credit_.Give(now);
    group_->under_way_ += bytes;
  }
  delivered_ -= count;
  if (delivered_ == 0) limits_.Rest();
  owner_.OnAcknowledge(count);
}

void UploadScheduler::OnCreditUsed(Group* group, size_t bytes, Age age,
                                   SteadyTime now) {
  if (now >= round_end_) EndRound(now);
  if (bytes >= kFullWriteBytes) {
    round_age_ = std::min(round_age_.value_or(age), age);
    const Age least = std::min(*round_age_, last_age_.value_or(age));
    if (age <= 2 * least) MarkBusy(group, age, now);
  }
  if (IsSharing()) Share(bytes);
  ReleaseAll(now);
}

void UploadScheduler::OnCreditUsedUp(Group* group, SteadyTime now) {
  MarkBusy(group, last_age_.value_or(Age::zero()), now);
}

void UploadScheduler::MarkBusy(Group* group, Age age, SteadyTime now) {
  group->busy_until_ = now + kBusyTime + 2 * age;
  if (group->scheduler_ != nullptr) return;
  group->scheduler_ = this;
  group->position_ = busy_.insert(busy_.end(), group);
  if (busy_.size() == 2) BeginSharing(now);
}

void UploadScheduler::Unlist(Group* group) {
  busy_.erase(group->position_);
  group->scheduler_ = nullptr;
}

void UploadScheduler::BeginSharing(SteadyTime now) {
  settled_ = now;
  owed_ = {};
  if (now - shared_ < kForgetTime) return;
  window_ = kMinWindow;
  is_probing_ = true;
  base_age_.reset();
}

void UploadScheduler::EndRound(SteadyTime now) {
  last_age_ = now - round_end_ < kForgetTime ? round_age_ : std::nullopt;
  round_age_.reset();
  const Age round = last_age_.value_or(Age::zero()) * 3 / 2;
  round_end_ = now + std::clamp<Age>(round, kMinRound, kMaxRound);
  if (IsSharing()) {
    shared_ = now;
    ForgetUnused(now);
    AdaptWindow(now);
  }
  for (auto next = busy_.begin(); next != busy_.end();) {
    Group* const group = *next++;
    if (now < group->busy_until_ || !group->waiting_.empty()) continue;
    Unlist(group);
  }
}

// An application that has stopped does not keep what is not under way.
void UploadScheduler::ForgetUnused(SteadyTime now) {
  const Age longest = 4 * last_age_.value_or(kMaxRound) + kBusyTime / 2;
  for (Group* const group : busy_) {
    group->flows_.Each([=](Flow& flow) {
      group->under_way_ -= flow.credit_.Forget(longest, now);
    });
  }
}

void UploadScheduler::AdaptWindow(SteadyTime now) {
  if (!last_age_) return;
  bool is_too_small = false;
  for (Group* const group : busy_) {
    // What was given before they shared is still under way.
    if (group->under_way_ > window_ + window_ / 4) settled_ = now + *last_age_;
    is_too_small = is_too_small || !group->waiting_.empty();
  }
  if (now < settled_) return;
  settled_ = now + *last_age_;
  if (!base_age_ || *last_age_ < *base_age_ - *base_age_ / 10) {
    base_age_ = last_age_;  // and it may become less yet
  } else if (*last_age_ > *base_age_ + *base_age_ / 10 + kJitter) {
    is_probing_ = false;
    const auto fitting = static_cast<double>(window_) *
                         static_cast<double>(base_age_->count()) /
                         static_cast<double>(last_age_->count());
    window_ = std::max(static_cast<size_t>(fitting), kMinWindow);
  } else if (is_too_small) {
    window_ += is_probing_ ? window_ : window_ / 8;
    window_ = std::min(window_, kMaxWindow);
  }
}

void UploadScheduler::Share(size_t bytes) {
  const auto highest = static_cast<size_t>(GetHighestPriority());
  for (size_t i = highest + 1; i < kPriorities; ++i) {
    const int percent =
        FlowScheduler::GetPercentForSure(static_cast<Priority>(i));
    owed_[i] =
        std::min(owed_[i] + static_cast<int64_t>(bytes) * percent, kMaxOwed);
  }
}

Priority UploadScheduler::GetHighestPriority() const {
  Priority highest = Priority::kLow;
  for (const Group* group : busy_)
    highest = std::min(highest, group->priority_);
  return highest;
}

bool UploadScheduler::MayAcknowledge(const Group& group) const {
  if (!IsSharing() || group.scheduler_ == nullptr) return true;
  if (group.under_way_ >= window_) return false;
  return group.priority_ == GetHighestPriority() ||
         owed_[static_cast<size_t>(group.priority_)] > 0;
}

void UploadScheduler::Release(Group* group, SteadyTime now) {
  while (!group->waiting_.empty() && MayAcknowledge(*group)) {
    Flow* const flow = group->waiting_.front();
    group->waiting_.pop_front();
    flow->waits_at_.reset();
    if (!flow->limits_.MaySend()) continue;
    if (IsSharing() && group->priority_ != GetHighestPriority()) {
      owed_[static_cast<size_t>(group->priority_)] -=
          static_cast<int64_t>(flow->credit_.GetWriteBytes()) * 100;
    }
    flow->Acknowledge(1, now);
    if (flow->delivered_ > 0) flow->Enter();
  }
  if (group->waiting_.empty() || is_timed_) return;
  is_timed_ = true;
  timer_.WaitUntil(std::max(round_end_, now));
}

void UploadScheduler::ReleaseAll(SteadyTime now) {
  for (Group* const group : busy_) Release(group, now);
}

void UploadScheduler::OnTime(SteadyTime now) {
  is_timed_ = false;
  if (now >= round_end_) EndRound(now);
  ReleaseAll(now);
}

}  // namespace vantrel
