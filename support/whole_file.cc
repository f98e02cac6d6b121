#include "support/whole_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/unique_fd.h"

namespace vantrel {
namespace {

// No error of a call here has this number.
constexpr int kNotRegular = -1;

int WriteAll(int fd, const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t count =
        write(fd, text.data() + written, text.size() - written);
    if (count == -1 && errno != EINTR) return errno;
    if (count > 0) written += static_cast<size_t>(count);
  }
  return 0;
}

}  // namespace

int ReadWholeFile(const std::string& path, size_t max_bytes,
                  std::string* text) {
  // A pipe without a writer is not waited for.
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat kind = {};
  if (file.Get() == -1 || fstat(file.Get(), &kind) == -1) return errno;
  if (!S_ISREG(kind.st_mode)) return kNotRegular;
  text->clear();
  char piece[65536];
  while (true) {
    const ssize_t count = read(file.Get(), piece, sizeof(piece));
    if (count == 0) return 0;
    if (count == -1) {
      if (errno == EINTR) continue;
      return errno;
    }
    text->append(piece, static_cast<size_t>(count));
    if (text->size() > max_bytes) return EFBIG;
  }
}

int ReplaceWholeFile(const std::string& path, const std::string& text,
                     mode_t mode) {
  struct stat old = {};
  if (lstat(path.c_str(), &old) == 0 && !S_ISREG(old.st_mode))
    return kNotRegular;
  // A new file with a name that nobody can foresee, so that no link leads
  // elsewhere.
  std::string temporary = path + ".XXXXXX";
  const UniqueFd file(mkostemp(temporary.data(), O_CLOEXEC));
  if (file.Get() == -1) return errno;
  int error = WriteAll(file.Get(), text);
  if (error == 0 && (fchmod(file.Get(), mode) == -1 ||
                     rename(temporary.c_str(), path.c_str()) == -1)) {
    error = errno;
  }
  if (error != 0) unlink(temporary.c_str());
  return error;
}

const char* DescribeFileError(int error) {
  return error == kNotRegular ? "not a regular file" : strerror(error);
}

}  // namespace vantrel
