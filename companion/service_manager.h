#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace vantrel {

// Tells systemd what state the program is in, where that has started it as a
// service of the type "notify"; otherwise does nothing. Never waits.
class ServiceManager {
 public:
  ServiceManager();
  ServiceManager(const ServiceManager&) = delete;
  ServiceManager& operator=(const ServiceManager&) = delete;
  ~ServiceManager();

  // |state| is an assignment of sd_notify(3).
  void Notify(const std::string& state);
  // How often it wants to hear WATCHDOG=1 at least; none when it does not.
  static std::optional<std::chrono::microseconds> GetWatchdogTime();

 private:
  int fd_ = -1;
};

}  // namespace vantrel
