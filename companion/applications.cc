#include "companion/applications.h"

#include <iterator>

#include "common/uid.h"

namespace vantrel {
namespace {

void Add(const application_counts_t& counts, application_counts_t* sum) {
  sum->bytes_to_device += counts.bytes_to_device;
  sum->bytes_from_device += counts.bytes_from_device;
  sum->streams_opened += counts.streams_opened;
  sum->streams_denied += counts.streams_denied;
  sum->datagrams_to_device += counts.datagrams_to_device;
  sum->datagrams_from_device += counts.datagrams_from_device;
  sum->datagrams_dropped += counts.datagrams_dropped;
}

}  // namespace

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
