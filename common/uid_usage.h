#pragma once

#include <stdint.h>

#include <sstream>
#include <unordered_map>

namespace vantrel {

// Bytes received and sent on behalf of each application since the last
// Clear(). A UID has an entry only once some amount was added for it.
class UidUsage {
 public:
  struct uid_usage_t {
    uint32_t tx_bytes = 0;  // wraps
    uint32_t rx_bytes = 0;  // wraps
  };
  using Usages = std::unordered_map<uint32_t, uid_usage_t>;

  void AddRxAndTxBytes(uint32_t uid, uint32_t rx, uint32_t tx);
  void AddRxBytes(uint32_t uid, uint32_t n) { AddRxAndTxBytes(uid, n, 0); }
  void AddTxBytes(uint32_t uid, uint32_t n) { AddRxAndTxBytes(uid, 0, n); }

  Usages::const_iterator Begin() const { return usages_.begin(); }
  Usages::const_iterator End() const { return usages_.end(); }
  bool Empty() const { return usages_.empty(); }
  void Clear() { usages_.clear(); }

  // A heading and one line per UID, for the state dump.
  void Dump(std::stringstream& out) const;

 private:
  Usages usages_;
};

}  // namespace vantrel
