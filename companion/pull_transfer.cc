#include "companion/pull_transfer.h"

#include <algorithm>

#include "link/v1_wire.h"

namespace vantrel {

bool PullTransfer::TakeMessage(size_t max_payload, std::string* out) {
  if (left_bytes_ == 0 && has_answered_) return false;
  const size_t length = std::min<size_t>(left_bytes_, max_payload);
  out->append(v1::TransferData(TYPE_PULL_DATA, request_id_, length));
  out->append(length, 'b');
  left_bytes_ -= static_cast<uint32_t>(length);
  has_answered_ = true;
  return true;
}

}  // namespace vantrel
