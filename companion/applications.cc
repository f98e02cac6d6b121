#include "companion/applications.h"

#include <iterator>

#include "common/uid.h"

namespace vantrel {
Application& Applications::Get(uint32_t uid) {
  if (uid == kNobodyUid) return unknown_;
  const auto found = by_uid_.find(uid);
  if (found != by_uid_.end()) {
    known_.splice(known_.end(), known_, found->second);
    return *found->second;
  }
  MakeRoom();
  known_.emplace_back(uid);
  by_uid_.emplace(uid, std::prev(known_.end()));
  return known_.back();
}

// There may be more, as long as each of them has a stream.
void Applications::MakeRoom() {
  if (known_.size() < kMaxKnown) return;
  for (auto entry = known_.begin(); entry != known_.end(); ++entry) {
    if (entry->GetStreamCount() > 0) continue;
    Add(entry->GetCounts(), &forgotten_);
    by_uid_.erase(*entry->GetUid());
    known_.erase(entry);
    return;
  }
}

}  // namespace vantrel
