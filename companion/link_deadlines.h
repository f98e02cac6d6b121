#pragma once

#include <chrono>
#include <optional>

#include "support/steady_time.h"

namespace vantrel {

// By when a device must have done what, and which of these times has passed.
class LinkDeadlines {
 public:
  // A device sets its rules first, with sixteen commands of a tool that may be
  // slow.
  static constexpr std::chrono::seconds kHandshakeTime{30};
  // By then it has begun, if it speaks at all.
  static constexpr std::chrono::seconds kSilenceTime{10};
  static constexpr std::chrono::seconds kWriteTime{30};
  static constexpr std::chrono::seconds kCloseTime{5};

  // |may_be_silent|: the device may speak the protocol without a handshake, so
  // that its first word decides whether there is to be one.
  LinkDeadlines(SteadyTime connected, bool may_be_silent)
      : may_be_silent_(may_be_silent),
        connected_(connected),
        begun_(connected) {}

  void OnReceived(SteadyTime now);
  bool HasReceived() const { return has_received_; }
  // The handshake is done, or the protocol has none.
  void OnReady() { is_ready_ = true; }
  bool IsReady() const { return is_ready_; }
  // The link takes no bytes, though some wait, or takes them again.
  void OnBlocked(SteadyTime now);
  void OnWritten() { blocked_.reset(); }
  void OnClosing(SteadyTime now) { closing_ = now; }

  // Why the link has to be given up; null while it has not. Once it is
  // closing, only the time for that counts.
  const char* GetExcess(SteadyTime now) const;
  // Whether the device has sent nothing for so long that another may have its
  // place. It may be well all the same: protocol 1 has no handshake.
  bool IsSilent(SteadyTime now) const;

 private:
  const bool may_be_silent_;
  const SteadyTime connected_;
  SteadyTime begun_;  // the time for the handshake
  bool has_received_ = false;
  bool is_ready_ = false;
  std::optional<SteadyTime> blocked_;
  std::optional<SteadyTime> closing_;
};

}  // namespace vantrel
