#include "tools/ctl/log_follower.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>

#include "tools/system_failure.h"

namespace vantrel {

LogFollower::LogFollower(const std::string& path)
    : path_(path), file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (file_.Get() < 0 || lseek(file_.Get(), 0, SEEK_END) < 0) {
    throw SystemFailure("cannot read " + path);
  }
}

bool LogFollower::Next(std::string* line) {
  size_t end = bytes_.find('\n');
  char piece[4096];
  while (end == std::string::npos) {
    const ssize_t count = read(file_.Get(), piece, sizeof(piece));
    if (count <= 0) {
      if (!GoOnWithSuccessor()) return false;
      continue;
    }
    bytes_.append(piece, static_cast<size_t>(count));
    end = bytes_.find('\n');
  }
  *line = bytes_.substr(0, end);
  bytes_.erase(0, end + 1);
  return true;
}

bool LogFollower::GoOnWithSuccessor() {
  struct stat ours;
  struct stat named;
  if (fstat(file_.Get(), &ours) != 0) return false;
  const off_t position = lseek(file_.Get(), 0, SEEK_CUR);
  if (ours.st_size > position) return true;  // it has grown meanwhile
  if (ours.st_size < position) {
    bytes_.clear();
    return lseek(file_.Get(), 0, SEEK_SET) == 0;
  }
  UniqueFd successor(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (successor.Get() < 0 || fstat(successor.Get(), &named) != 0 ||
      (named.st_dev == ours.st_dev && named.st_ino == ours.st_ino)) {
    return false;
  }
  bytes_.clear();
  file_ = std::move(successor);
  return true;
}

}  // namespace vantrel
