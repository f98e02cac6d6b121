#include "companion/link_deadlines.h"

namespace vantrel {

void LinkDeadlines::OnBlocked(SteadyTime now) {
  if (!blocked_) blocked_ = now;
}

const char* LinkDeadlines::GetExcess(SteadyTime now) const {
  if (closing_) {
    return now - *closing_ >= kCloseTime ? "closed by the companion" : nullptr;
  }
  if (!is_ready_ && now - connected_ >= kHandshakeTime) {
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
