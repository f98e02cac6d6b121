#include "tools/ctl/log_follower.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "support/system_failure.h"

namespace vantrel {
namespace {

constexpr size_t kPieceBytes = 16 * 1024;

// Throws when |path| is anything that can make its reader wait, such as a pipe
// or a terminal, or that has no end.
UniqueFd OpenRegularFile(const std::string& path) {
  UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status;
  if (file.Get() < 0 || fstat(file.Get(), &status) != 0) {
    throw SystemFailure("cannot read " + path);
  }
  if (!S_ISREG(status.st_mode)) {
    throw std::runtime_error("cannot follow " + path + ": no regular file");
  }
  return file;
}

}  // namespace

LogFollower::LogFollower(const std::string& path)
    : path_(path), file_(OpenRegularFile(path)) {
  if (lseek(file_.Get(), 0, SEEK_END) < 0) {
    throw SystemFailure("cannot read " + path);
  }
}

bool LogFollower::Next(std::string* line) {
  size_t left = kMaxBytesAtOnce;
  while (true) {
    const size_t end = bytes_.find('\n', searched_);
    if (end != std::string::npos) {
      const bool is_left_out = is_in_long_line_ || end - begin_ > kMaxLineBytes;
      if (!is_left_out) *line = bytes_.substr(begin_, end - begin_);
      is_in_long_line_ = false;
      begin_ = searched_ = end + 1;
      if (!is_left_out) return true;
      continue;
    }
    // Only here, so that many short lines are not moved again and again.
    bytes_.erase(0, begin_);
    if (bytes_.size() > kMaxLineBytes) {
      is_in_long_line_ = true;
      bytes_.clear();
    }
    begin_ = 0;
    searched_ = bytes_.size();
    if (left < kPieceBytes || !Read()) return false;
    left -= kPieceBytes;
  }
}

bool LogFollower::Read() {
  char piece[kPieceBytes];
  while (true) {
    const ssize_t count = read(file_.Get(), piece, sizeof(piece));
    if (count > 0) {
      bytes_.append(piece, static_cast<size_t>(count));
      return true;
    }
    if (count < 0 || !GoOnWithSuccessor()) return false;
  }
}

bool LogFollower::GoOnWithSuccessor() {
  struct stat ours;
  struct stat named;
  if (fstat(file_.Get(), &ours) != 0) return false;
  const off_t position = lseek(file_.Get(), 0, SEEK_CUR);
  if (ours.st_size > position) return true;  // it has grown meanwhile
  if (ours.st_size < position) {
    Forget();
    return lseek(file_.Get(), 0, SEEK_SET) == 0;
  }
  if (stat(path_.c_str(), &named) != 0 ||
      (named.st_dev == ours.st_dev && named.st_ino == ours.st_ino)) {
    return false;
  }
  try {
    file_ = OpenRegularFile(path_);
  } catch (const std::exception&) {
    return false;  // not yet
  }
  Forget();
  return true;
}

void LogFollower::Forget() {
  bytes_.clear();
  begin_ = searched_ = 0;
  is_in_long_line_ = false;
}

}  // namespace vantrel
