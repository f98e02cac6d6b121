#include "common/uid_usage.h"

#include <stdint.h>

#include <iomanip>

namespace vantrel {

void UidUsage::AddRxAndTxBytes(uint32_t uid, uint32_t rx, uint32_t tx) {
  if (rx == 0 && tx == 0) return;
  uid_usage_t& usage = usages_[uid];
  usage.rx_bytes += rx;
  usage.tx_bytes += tx;
}

void UidUsage::Dump(std::stringstream& out) const {
  out << "UID Usage:" << std::endl;
  for (const auto& [uid, usage] : usages_) {
    out << " " << std::setw(6) << uid << " RX: " << usage.rx_bytes
        << " TX: " << usage.tx_bytes << std::endl;
  }
}

}  // namespace vantrel
