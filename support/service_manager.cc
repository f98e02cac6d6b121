#include "support/service_manager.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <system_error>

#include "common/link_address.h"

namespace vantrel {
namespace {

// Of a watchdog.
constexpr uint64_t kShortestUs = 20000;
constexpr uint64_t kLongestUs = 3600000000;

}  // namespace

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
  // Inherited from a process that it is meant for.
  const char* const pid = getenv("WATCHDOG_PID");
  if (pid != nullptr && pid != std::to_string(getpid())) return std::nullopt;
  const char* const text = getenv("WATCHDOG_USEC");
  if (text == nullptr) return std::nullopt;
  const char* const end = text + strlen(text);
  uint64_t us = 0;
  const auto parsed = std::from_chars(text, end, us);
  if (parsed.ptr == text || parsed.ptr != end) return std::nullopt;
  if (parsed.ec == std::errc::result_out_of_range) us = UINT64_MAX;
  if (us == 0) return std::nullopt;
  return std::chrono::microseconds(std::clamp(us, kShortestUs, kLongestUs));
}

}  // namespace vantrel
