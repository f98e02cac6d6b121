#include "tools/ctl/status_client.h"

#include <errno.h>
#include <sys/socket.h>

#include <stdexcept>

#include "common/link_address.h"
#include "support/system_failure.h"

namespace vantrel {
namespace {

// Longer than a state of some thousand applications.
constexpr size_t kMaxLineBytes = 1024 * 1024;

// None when |line| is no state.
std::optional<StatusClient::State> ParseLine(const std::string& line) {
  if (auto state = ParseState(line)) return state;
  if (auto state = ParseCompanionState(line)) return state;
  return std::nullopt;
}

}  // namespace

StatusClient::StatusClient(const std::string& path)
    : path_(path), socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address;
  const socklen_t length = ToSocketAddress(path, &address);
  if (connect(socket_.Get(), reinterpret_cast<const sockaddr*>(&address),
              length) != 0) {
    throw SystemFailure("no status socket " + path +
                        ", which vantrel-launch --status-socket " + path +
                        " makes, or vantrel-companion with the same option");
  }
}

bool StatusClient::Receive() {
  char piece[16 * 1024];
  while (true) {
    const ssize_t count =
        recv(socket_.Get(), piece, sizeof(piece), MSG_DONTWAIT);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) return true;
    if (count <= 0) return false;
    bytes_.append(piece, static_cast<size_t>(count));
    if (bytes_.size() > kMaxLineBytes) return true;
  }
}

std::optional<StatusClient::State> StatusClient::Next() {
  for (size_t end; (end = bytes_.find('\n', begin_)) != std::string::npos;) {
    const std::string line = bytes_.substr(begin_, end - begin_);
    begin_ = end + 1;
    try {
      if (auto state = ParseLine(line)) return state;
    } catch (const std::exception& e) {
      throw std::runtime_error("what " + path_ +
                               " says is no state: " + e.what());
    }
  }
  // Only here, so that many short lines are not moved again and again.
  bytes_.erase(0, begin_);
  begin_ = 0;
  if (bytes_.size() > kMaxLineBytes) {
    throw std::runtime_error("what " + path_ +
                             " says is no state: it has no lines");
  }
  return std::nullopt;
}

}  // namespace vantrel
