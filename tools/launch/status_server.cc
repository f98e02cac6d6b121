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

StatusServer::StatusServer(EventLoop& loop, const std::string& path,
                           callbacks_t callbacks)
    : callbacks_(std::move(callbacks)),
      loop_(loop),
      listener_(loop.GetContext()),
      timer_(loop.GetContext()) {
  UniqueFd fd = file_.Bind(path);
  if (fd.Get() < 0 || listen(fd.Get(), kBacklog) != 0) {
    throw SystemFailure("no status socket " + path);
  }
  listener_.assign(fd.Release());
  listener_.native_non_blocking(true);
  Listen();
}

StatusServer::~StatusServer() {
  readers_.clear();
  listener_.close();
  timer_.cancel();
  loop_.GetContext().poll();  // the handlers that were just cancelled
}

void StatusServer::Listen() {
  is_listening_ = true;
  listener_.async_wait(asio::posix::descriptor_base::wait_read,
                       [this](const std::error_code& error) {
                         if (!error) HandleReader();
                       });
}

void StatusServer::HandleReader() {
  is_listening_ = false;
  StartTicking();
  UniqueFd reader(
      accept4(listener_.native_handle(), nullptr, nullptr, SOCK_CLOEXEC));
  // For want of descriptors, as a rule: the next tick listens again.
  if (reader.Get() < 0) return;
  if (file_.Admits(reader.Get()) &&
      Write(reader.Get(), callbacks_.get_state() + "\n")) {
    readers_.push_back(std::move(reader));
  }
  Listen();
}

void StatusServer::StartTicking() {
  if (std::exchange(is_ticking_, true)) return;
  timer_.expires_after(std::chrono::milliseconds(kStateIntervalMs));
  timer_.async_wait([this](const std::error_code& error) {
    if (!error) HandleTick();
  });
}

void StatusServer::HandleTick() {
  is_ticking_ = false;
  if (!is_listening_) Listen();
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
