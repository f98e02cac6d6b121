#include "tools/launch/status_server.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "tools/launch_state.h"
#include "tools/system_failure.h"

namespace vantrel {
namespace {

constexpr int kBacklog = 16;

// Whether |reader| has taken all of |text|; errno says why not.
bool Write(int reader, const std::string& text) {
  const ssize_t count =
      send(reader, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  if (count >= 0) errno = EAGAIN;  // of a part that did not fit
  return count == static_cast<ssize_t>(text.size());
}

}  // namespace

StatusServer::StatusServer(asio::io_context& loop, const std::string& path,
                           callbacks_t callbacks)
    : callbacks_(std::move(callbacks)),
      listener_(loop, Listen(path), [this] { HandleReader(); }),
      timer_(loop, [this] { HandleTick(); }) {
  listener_.WaitReadable();
}

UniqueFd StatusServer::Listen(const std::string& path) {
  UniqueFd fd = file_.Bind(path);
  if (fd.Get() < 0 || listen(fd.Get(), kBacklog) != 0) {
    throw SystemFailure("no status socket " + path);
  }
  return fd;
}

void StatusServer::HandleReader() {
  StartTicking();
  UniqueFd reader(accept4(listener_.GetFd(), nullptr, nullptr, SOCK_CLOEXEC));
  // For want of descriptors, as a rule: the next tick listens again.
  if (reader.Get() < 0) return;
  if (file_.Admits(reader.Get()) &&
      Write(reader.Get(), callbacks_.get_state() + "\n")) {
    readers_.push_back(std::move(reader));
  }
  listener_.WaitReadable();
}

void StatusServer::StartTicking() {
  if (std::exchange(is_ticking_, true)) return;
  timer_.WaitFor(std::chrono::milliseconds(kStateIntervalMs));
}

void StatusServer::HandleTick() {
  is_ticking_ = false;
  listener_.WaitReadable();
  SendState();
  if (HasReaders()) StartTicking();
}

void StatusServer::SendState() {
  if (HasReaders()) Send(callbacks_.get_state());
}

void StatusServer::Send(const std::string& line) {
  const auto is_lost = [this, text = line + "\n"](const UniqueFd& reader) {
    if (Write(reader.Get(), text)) return false;
    if (errno == EAGAIN) {
      callbacks_.say("a reader of the status socket has stopped reading");
    }
    return true;
  };
  readers_.erase(std::remove_if(readers_.begin(), readers_.end(), is_lost),
                 readers_.end());
}

}  // namespace vantrel
