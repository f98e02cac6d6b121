#include "tools/launch/output.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

namespace vantrel {

Output::Output(asio::io_context& loop, int fd, std::function<void()> on_drained)
    : loop_(loop), fd_(fd), on_drained_(std::move(on_drained)) {
  struct stat kind = {};
  fstat(fd, &kind);
  if (S_ISSOCK(kind.st_mode)) {
    means_ = Means::kSocket;
  } else if (S_ISFIFO(kind.st_mode) || S_ISCHR(kind.st_mode)) {
    // Not to block is a property of the open file, which others may share; so
    // this opens one more.
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    own_.Reset(
        open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (own_.Get() >= 0) {
      fd_ = own_.Get();
    } else {
      means_ = Means::kPolled;
    }
  }
}

void Output::Write(std::string_view bytes) {
  bytes_.append(bytes);
  Flush();
}

void Output::Flush() {
  if (bytes_.empty()) return;
  while (written_ < bytes_.size()) {
    const ssize_t count = WriteOnce();
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) {
      Await();
      return;
    }
    if (count <= 0) {  // as a rule the reader has gone for good
      Forget(count < 0 ? errno : EIO);
      return;
    }
    written_ += static_cast<size_t>(count);
    if (written_ > bytes_.size() / 2) {
      bytes_.erase(0, std::exchange(written_, 0));
    }
  }
  Forget(0);
}

void Output::Forget(int error) {
  error_ = error;
  bytes_.clear();
  written_ = 0;
  if (on_drained_) on_drained_();
}

ssize_t Output::WriteOnce() {
  const std::string_view kept = GetKept();
  if (means_ == Means::kSocket) {
    return send(fd_, kept.data(), kept.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  if (means_ == Means::kPlain) return write(fd_, kept.data(), kept.size());
  pollfd wait = {fd_, POLLOUT, 0};
  if (poll(&wait, 1, 0) == 0) {
    errno = EAGAIN;
    return -1;
  }
  // A pipe that polls as writable takes so much.
  return write(fd_, kept.data(), std::min<size_t>(kept.size(), PIPE_BUF));
}

void Output::Await() {
  if (is_awaited_) return;
  if (!ready_) {
    UniqueFd set(epoll_create1(EPOLL_CLOEXEC));
    if (set.Get() < 0) return;  // the next write tries again
    ready_.emplace(loop_, std::move(set), [this] { HandleReady(); });
  }
  epoll_event event = {};
  event.events = EPOLLOUT;
  epoll_ctl(ready_->GetFd(), EPOLL_CTL_ADD, fd_, &event);
  is_awaited_ = true;
  ready_->WaitReadable();
}

void Output::HandleReady() {
  is_awaited_ = false;
  epoll_ctl(ready_->GetFd(), EPOLL_CTL_DEL, fd_, nullptr);
  Flush();
}

void Output::Finish(int timeout_ms) {
  Flush();
  pollfd wait = {fd_, POLLOUT, 0};
  while (!bytes_.empty() && poll(&wait, 1, timeout_ms) > 0) Flush();
}

}  // namespace vantrel
