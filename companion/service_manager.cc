#include "companion/service_manager.h"

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>

namespace vantrel {

ServiceManager::ServiceManager() {
  const char* const name = getenv("NOTIFY_SOCKET");
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (name == nullptr || strlen(name) >= sizeof(address.sun_path)) return;
  memcpy(address.sun_path, name, strlen(name));
  if (name[0] == '@') address.sun_path[0] = '\0';
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  // Without it every Notify() is refused, and nobody misses one.
  static_cast<void>(connect(
      fd_, reinterpret_cast<const sockaddr*>(&address),
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(name))));
}

ServiceManager::~ServiceManager() {
  if (fd_ != -1) close(fd_);
}

void ServiceManager::Notify(const std::string& state) {
  if (fd_ == -1) return;
  static_cast<void>(
      send(fd_, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
}

std::optional<std::chrono::microseconds> ServiceManager::GetWatchdogTime() {
  const char* const text = getenv("WATCHDOG_USEC");
  int64_t us = 0;
  if (text == nullptr) return std::nullopt;
  const auto parsed = std::from_chars(text, text + strlen(text), us);
  if (parsed.ec != std::errc() || us < 2) return std::nullopt;
  return std::chrono::microseconds(us);
}

}  // namespace vantrel
