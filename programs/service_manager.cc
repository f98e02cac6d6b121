#include "programs/service_manager.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <charconv>

#include "common/link_address.h"

namespace vantrel {

ServiceManager::ServiceManager() {
  const char* const name = getenv("NOTIFY_SOCKET");
  if (name == nullptr || strlen(name) >= sizeof(sockaddr_un::sun_path)) return;
  sockaddr_un address;
  const socklen_t length = ToSocketAddress(name, &address);
  socket_.Reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  // Without it every Notify() is refused, and nobody misses one.
  static_cast<void>(connect(
      socket_.Get(), reinterpret_cast<const sockaddr*>(&address), length));
}

void ServiceManager::Notify(const std::string& state) {
  if (socket_.Get() < 0) return;
  static_cast<void>(send(socket_.Get(), state.data(), state.size(),
                         MSG_NOSIGNAL | MSG_DONTWAIT));
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
