#include "platform/linux/log_file.h"

#include <fcntl.h>
#include <unistd.h>

namespace vantrel {

bool LogFile::Follow(time_t now) {
  if (now != looked_at_) {
    looked_at_ = now;
    if (fd_.Get() == -1 || !HasName()) Open();
  }
  return fd_.Get() != -1;
}

bool LogFile::Append(const std::string& line) {
  const std::string text = is_cut_ ? '\n' + line : line;
  const ssize_t written = write(fd_.Get(), text.data(), text.size());
  // The next line must not go on where a full disk has cut this one.
  const bool is_whole = written == static_cast<ssize_t>(text.size());
  if (written > 0) is_cut_ = !is_whole;
  return is_whole;
}

bool LogFile::HasName() const {
  struct stat named;
  return stat(path_.c_str(), &named) == 0 && named.st_dev == opened_.st_dev &&
         named.st_ino == opened_.st_ino;
}

void LogFile::Open() {
  UniqueFd fd(open(
      path_.c_str(),
      O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600));
  if (fd.Get() == -1) return;
  fd_ = std::move(fd);
  is_cut_ = false;
  fstat(fd_.Get(), &opened_);
}

}  // namespace vantrel
