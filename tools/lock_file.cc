#include "tools/lock_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "support/system_failure.h"

namespace vantrel {
namespace {

struct flock WholeFile() {
  struct flock range = {};
  range.l_type = F_WRLCK;
  range.l_whence = SEEK_SET;
  return range;
}

// The number of a process, as a rule; empty for a new file.
std::string ReadLock(int file) {
  char text[16] = {};
  static_cast<void>(!pread(file, text, sizeof(text) - 1, 0));
  return text;
}

bool IsLock(int file) {
  struct stat kind = {};
  fstat(file, &kind);
  return S_ISREG(kind.st_mode) && kind.st_size < 16 &&
         ReadLock(file).find_first_not_of("0123456789\n") == std::string::npos;
}

std::string DescribeHolder(int file) {
  const long pid = strtol(ReadLock(file).c_str(), nullptr, 10);
  return pid > 0 ? "process " + std::to_string(pid) : "another process";
}

}  // namespace

LockFile::LockFile(const std::string& path)
    : file_(
          open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
  if (file_.Get() < 0) throw SystemFailure("no lock file " + path);
  struct flock range = WholeFile();
  if (fcntl(file_.Get(), F_OFD_SETLK, &range) != 0) {
    if (errno != EAGAIN && errno != EACCES) {
      throw SystemFailure("no lock on " + path);
    }
    throw DeviceInUse("a daemon of " + DescribeHolder(file_.Get()) +
                      " runs on this device (" + path + ")");
  }
  if (!IsLock(file_.Get())) {
    throw std::runtime_error(path + " is no lock file and is left alone");
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(file_.Get(), 0) != 0 ||
      pwrite(file_.Get(), pid.data(), pid.size(), 0) < 0) {
    throw SystemFailure("cannot write " + path);
  }
}

std::optional<std::string> FindLockHolder(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
  if (file.Get() < 0 && errno == ENOENT) return std::nullopt;
  struct flock range = WholeFile();
  if (file.Get() < 0 || fcntl(file.Get(), F_OFD_GETLK, &range) != 0) {
    throw SystemFailure("cannot look at the lock " + path);
  }
  if (range.l_type == F_UNLCK) return std::nullopt;
  return DescribeHolder(file.Get());
}

}  // namespace vantrel
