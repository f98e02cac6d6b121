#include "link/waiting_datagrams.h"

#include <algorithm>

namespace vantrel {

bool WaitingDatagrams::HasRoom(const HostAndPort& source, size_t size) const {
  if (datagrams_.empty()) return true;
  const size_t left = kMaxBytes - std::min(bytes_, kMaxBytes);
  if (size > left) return false;
  return size + kReservedBytes <= left || !HasWaiting(source);
}

// Whoever sends much is found soon among the newest.
bool WaitingDatagrams::HasWaiting(const HostAndPort& source) const {
  return std::any_of(
      datagrams_.rbegin(), datagrams_.rend(),
      [&](const datagram_t& one) { return one.source == source; });
}

void WaitingDatagrams::Add(const HostAndPort& source, uint32_t end,
                           uint32_t size) {
  datagrams_.push_back({source, end, size});
  bytes_ += size;
}

void WaitingDatagrams::OnWritten(uint32_t end) {
  while (!datagrams_.empty() &&
         static_cast<int32_t>(end - datagrams_.front().end) >= 0) {
    bytes_ -= datagrams_.front().size;
    datagrams_.pop_front();
  }
}

}  // namespace vantrel
