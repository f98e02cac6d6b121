#include "companion/link_deadlines.h"

namespace vantrel {

void LinkDeadlines::OnReceived(SteadyTime now) {
  if (may_be_silent_ && !has_received_) begun_ = now;
  has_received_ = true;
}

void LinkDeadlines::OnBlocked(SteadyTime now) {
  if (!blocked_) blocked_ = now;
}

const char* LinkDeadlines::GetExcess(SteadyTime now) const {
  if (closing_) {
    return now - *closing_ >= kCloseTime ? "closed by the companion" : nullptr;
  }
  const bool is_awaited = !is_ready_ && (has_received_ || !may_be_silent_);
  if (is_awaited && now - begun_ >= kHandshakeTime) {
    return has_received_ ? "no whole handshake within 30 s"
                         : "the device said nothing for 30 s";
  }
  if (blocked_ && now - *blocked_ >= kWriteTime) {
    return "the device took nothing for 30 s";
  }
  return nullptr;
}

bool LinkDeadlines::IsSilent(SteadyTime now) const {
  return !has_received_ && now - connected_ >= kSilenceTime;
}

}  // namespace vantrel
