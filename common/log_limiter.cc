#include "common/log_limiter.h"

#include <errno.h>

#include "common/monotonic_clock.h"

namespace vantrel {

bool LogLimiter::Admit() {
  const timespec now = MonotonicNow();
  const bool is_too_soon =
      has_logged_ &&
      (now.tv_sec - last_.tv_sec < 1 ||
       (now.tv_sec - last_.tv_sec == 1 && now.tv_nsec < last_.tv_nsec));
  if (is_too_soon) return false;
  has_logged_ = true;
  last_ = now;
  return true;
}

bool LogLimiter::AdmitFailure(int error) {
  switch (error) {
    case EMFILE:
    case ENFILE:
    case ENOBUFS:
    case ENOMEM:
      return Admit();
    default:
      return true;
  }
}

}  // namespace vantrel
