#pragma once

#include <stdint.h>

#include "companion/flow_scheduler.h"

namespace vantrel {

// The bytes that a device of link protocol 1 pulls to measure the link.
class PullTransfer final : public FlowScheduler::Flow {
 public:
  PullTransfer(uint32_t request_id, uint32_t bytes)
      : request_id_(request_id), left_bytes_(bytes) {}

  bool TakeMessage(size_t max_payload, std::string* out) override;

 private:
  const uint32_t request_id_;
  uint32_t left_bytes_;
  bool has_answered_ = false;  // also a pull of no bytes has one answer
};

}  // namespace vantrel
