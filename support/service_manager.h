#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "common/unique_fd.h"

namespace vantrel {

// Tells systemd what state the program is in, where that has started it as a
// service of the type "notify"; otherwise does nothing. Never waits, and
// whether anybody listens is not our concern.
class ServiceManager {
 public:
  ServiceManager();

  // |state| has assignments of sd_notify(3), one a line.
  void Notify(const std::string& state);
  // How often it wants to hear WATCHDOG=1 of this process at least; none when
  // it does not. What is out of reach for a program is taken for the nearest
  // that is not: 20 ms, an hour.
  static std::optional<std::chrono::microseconds> GetWatchdogTime();

 private:
  UniqueFd socket_;
};

}  // namespace vantrel
