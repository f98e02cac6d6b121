#include "tools/launch/line_writer.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

namespace vantrel {

LineWriter::LineWriter(int fd, std::string before_count,
                       std::string after_count)
    : fd_(fd),
      means_(kPlain),
      before_count_(std::move(before_count)),
      after_count_(std::move(after_count)) {
  struct stat kind = {};
  fstat(fd, &kind);
  if (S_ISSOCK(kind.st_mode)) {
    means_ = kSocket;
  } else if (S_ISFIFO(kind.st_mode) || S_ISCHR(kind.st_mode)) {
    // Not to block is a property of the open file, which others may share; so
    // this opens one more.
    const std::string path = "/proc/self/fd/" + std::to_string(fd);
    own_.Reset(
        open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (own_.Get() >= 0) {
      fd_ = own_.Get();
    } else {
      means_ = kPolled;
    }
  }
}

void LineWriter::Write(const std::string& line) {
  Flush();
  if (dropped_ > 0 || waiting_.size() + line.size() >= kMaxWaitingBytes) {
    ++dropped_;
    return;
  }
  waiting_ += line + "\n";
  Flush();
}

int LineWriter::GetFdToWrite() const { return waiting_.empty() ? -1 : fd_; }

void LineWriter::Flush() {
  while (!waiting_.empty()) {
    const ssize_t count = WriteOnce();
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) return;
    if (count <= 0) {  // the reader has gone for good
      waiting_.clear();
      dropped_ = 0;
      return;
    }
    waiting_.erase(0, static_cast<size_t>(count));
    if (!waiting_.empty() || dropped_ == 0) continue;
    waiting_ = before_count_ + std::to_string(std::exchange(dropped_, 0)) +
               after_count_ + "\n";
  }
}

ssize_t LineWriter::WriteOnce() {
  if (means_ == kSocket) {
    return send(fd_, waiting_.data(), waiting_.size(),
                MSG_DONTWAIT | MSG_NOSIGNAL);
  }
  if (means_ == kPlain) return write(fd_, waiting_.data(), waiting_.size());
  pollfd wait = {fd_, POLLOUT, 0};
  if (poll(&wait, 1, 0) == 0) {
    errno = EAGAIN;
    return -1;
  }
  // A pipe that polls as writable takes so much.
  return write(fd_, waiting_.data(),
               std::min<size_t>(waiting_.size(), PIPE_BUF));
}

size_t LineWriter::Finish(int timeout_ms) {
  Flush();
  pollfd wait = {fd_, POLLOUT, 0};
  while (!waiting_.empty() && poll(&wait, 1, timeout_ms) > 0) Flush();
  return dropped_ + static_cast<size_t>(
                        std::count(waiting_.begin(), waiting_.end(), '\n'));
}

}  // namespace vantrel
