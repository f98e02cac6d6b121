#include "support/status_server.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <system_error>
#include <utility>

#include "support/state_record.h"
#include "support/system_failure.h"

namespace vantrel {
namespace {

constexpr int kBacklog = 16;

}  // namespace

// One of them, with what its socket has not taken yet.
class StatusServer::Reader {
 public:
  Reader(asio::io_context& loop, UniqueFd fd)
      : socket_(loop, std::move(fd), {}, [this] { Flush(); }) {}

  // False when it is too far behind, or has gone.
  bool Take(const std::string& text) {
    if (!rest_.empty() && ++lines_behind_ > kMaxLinesBehind) return false;
    rest_ += text;
    Flush();
    return !has_gone_;
  }
  bool HasGone() const { return has_gone_; }

 private:
  void Flush() {
    const ssize_t count = send(socket_.GetFd(), rest_.data(), rest_.size(),
                               MSG_DONTWAIT | MSG_NOSIGNAL);
    has_gone_ = count < 0 && errno != EAGAIN;
    rest_.erase(0, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    if (rest_.empty()) lines_behind_ = 0;
    if (!rest_.empty() && !has_gone_) socket_.WaitWritable();
  }

  Descriptor socket_;
  std::string rest_;
  int lines_behind_ = 0;  // that came since |rest_| was empty
  bool has_gone_ = false;
};

StatusServer::StatusServer(asio::io_context& loop, const std::string& path,
                           callbacks_t callbacks)
    : loop_(loop),
      callbacks_(std::move(callbacks)),
      listener_(loop, Listen(path), [this] { HandleReader(); }),
      timer_(loop, [this] { HandleTick(); }) {
  listener_.WaitReadable();
}

StatusServer::~StatusServer() = default;

UniqueFd StatusServer::Listen(const std::string& path) {
  UniqueFd fd = file_.Bind(path);
  if (fd.Get() < 0 || listen(fd.Get(), kBacklog) != 0) {
    throw SystemFailure("no status socket " + path);
  }
  return fd;
}

void StatusServer::GoOn() {
  is_ticking_ = false;
  StartTicking();
}

void StatusServer::HandleReader() {
  StartTicking();
  UniqueFd fd(accept4(listener_.GetFd(), nullptr, nullptr, SOCK_CLOEXEC));
  // For want of descriptors, as a rule: the next tick listens again.
  if (fd.Get() < 0) return;
  if (file_.Admits(fd.Get())) AddReader(std::move(fd));
  WaitForReader();
}

void StatusServer::AddReader(UniqueFd fd) {
  try {
    auto reader = std::make_unique<Reader>(loop_, std::move(fd));
    if (reader->Take(callbacks_.get_state() + "\n")) {
      readers_.push_back(std::move(reader));
    }
  } catch (const std::system_error&) {
    // The system cannot watch one more.
  }
}

void StatusServer::WaitForReader() {
  if (readers_.size() < kMaxReaders) listener_.WaitReadable();
}

void StatusServer::StartTicking() {
  if (std::exchange(is_ticking_, true)) return;
  timer_.WaitFor(std::chrono::milliseconds(kStateIntervalMs));
}

void StatusServer::HandleTick() {
  is_ticking_ = false;
  SendState();
  WaitForReader();
  if (HasReaders()) StartTicking();
}

void StatusServer::SendState() {
  if (HasReaders()) Send(callbacks_.get_state());
}

void StatusServer::Send(const std::string& line) {
  const auto is_lost = [this, text = line + "\n"](const auto& reader) {
    if (reader->Take(text)) return false;
    if (!reader->HasGone()) {
      callbacks_.say("a reader of the status socket has stopped reading");
    }
    return true;
  };
  readers_.erase(std::remove_if(readers_.begin(), readers_.end(), is_lost),
                 readers_.end());
}

}  // namespace vantrel
