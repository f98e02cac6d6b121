#include "support/metrics_file.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "common/unique_fd.h"
#include "support/system_failure.h"

namespace vantrel {
namespace {

[[nodiscard]] bool WriteAll(int fd, const std::string& text) {
  const ssize_t count = write(fd, text.data(), text.size());
  if (count >= 0) errno = ENOSPC;  // of a part that did not fit
  return count == static_cast<ssize_t>(text.size());
}

// Throws std::runtime_error, with |path| as it was.
void WriteFileAtomically(const std::string& path, const std::string& text) {
  const std::string fault = FindFaultOfMetricsPath(path);
  if (!fault.empty()) throw std::runtime_error("cannot write " + fault);
  // A new file with a name that nobody can foresee, so that no link leads
  // elsewhere; its reader may be another user, whatever our umask.
  std::string temporary = path + ".XXXXXX";
  const UniqueFd file(mkostemp(temporary.data(), O_CLOEXEC));
  if (file.Get() < 0) throw SystemFailure("cannot write " + path);
  if (!WriteAll(file.Get(), text) || fchmod(file.Get(), 0644) != 0 ||
      rename(temporary.c_str(), path.c_str()) != 0) {
    const auto failure = SystemFailure("cannot write " + path);
    unlink(temporary.c_str());
    throw failure;
  }
}

}  // namespace

MetricsFile::MetricsFile(asio::io_context& loop, const std::string& path,
                         callbacks_t callbacks)
    : path_(path),
      callbacks_(std::move(callbacks)),
      task_(loop, [this] { Write(); }) {}

void MetricsFile::Write() {
  try {
    WriteFileAtomically(path_, callbacks_.get_text());
    if (std::exchange(has_failed_, false)) {
      callbacks_.say(path_ + " is written again");
    }
  } catch (const std::runtime_error& e) {
    if (!std::exchange(has_failed_, true)) {
      callbacks_.say(std::string(e.what()) + "; trying again every second");
    }
    task_.Ask();
  }
}

std::string FindFaultOfMetricsPath(const std::string& path) {
  struct stat file = {};
  const bool is_free = lstat(path.c_str(), &file) != 0;
  return is_free || S_ISREG(file.st_mode) ? "" : path + ": not a regular file";
}

}  // namespace vantrel
