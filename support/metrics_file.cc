#include "support/metrics_file.h"

#include <sys/stat.h>

#include <utility>

#include "support/whole_file.h"

namespace vantrel {
MetricsFile::MetricsFile(asio::io_context& loop, const std::string& path,
                         callbacks_t callbacks)
    : path_(path),
      callbacks_(std::move(callbacks)),
      task_(loop, [this] { Write(); }) {}

void MetricsFile::Write() {
  // Its reader may be another user, whatever our umask.
  const int error = ReplaceWholeFile(path_, callbacks_.get_text(), 0644);
  const bool had_failed = std::exchange(has_failed_, error != 0);
  if (error == 0) {
    if (had_failed) callbacks_.say(path_ + " is written again");
    return;
  }
  if (!had_failed) {
    callbacks_.say("cannot write " + path_ + ": " + DescribeFileError(error) +
                   "; trying again every second");
  }
  task_.Ask();
}

std::string FindFaultOfMetricsPath(const std::string& path) {
  struct stat file = {};
  const bool is_free = lstat(path.c_str(), &file) != 0;
  return is_free || S_ISREG(file.st_mode) ? "" : path + ": not a regular file";
}

}  // namespace vantrel
