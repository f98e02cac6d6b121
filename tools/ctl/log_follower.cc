#include "tools/ctl/log_follower.h"

#include <fcntl.h>
#include <unistd.h>

#include "tools/system_failure.h"

namespace vantrel {

LogFollower::LogFollower(const std::string& path)
    : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  if (file_.Get() < 0 || lseek(file_.Get(), 0, SEEK_END) < 0) {
    throw SystemFailure("cannot read " + path);
  }
}

bool LogFollower::Next(std::string* line) {
  size_t end = bytes_.find('\n');
  char piece[4096];
  while (end == std::string::npos) {
    const ssize_t count = read(file_.Get(), piece, sizeof(piece));
    if (count <= 0) return false;
    bytes_.append(piece, static_cast<size_t>(count));
    end = bytes_.find('\n');
  }
  *line = bytes_.substr(0, end);
  bytes_.erase(0, end + 1);
  return true;
}

}  // namespace vantrel
