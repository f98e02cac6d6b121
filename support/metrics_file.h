#pragma once

#include <asio/io_context.hpp>
#include <functional>
#include <string>

#include "support/paced_task.h"

namespace vantrel {

// The file that the totals are kept in, replaced in one step when they have
// changed, at most once a second: a reader, which may be anybody, sees the old
// text or the new one. A write that fails is tried again.
class MetricsFile {
 public:
  struct callbacks_t {
    std::function<std::string()> get_text;
    std::function<void(const std::string&)> say;  // to a person
  };

  // |loop| outlives this.
  MetricsFile(asio::io_context& loop, const std::string& path,
              callbacks_t callbacks);

  // To be called when the text has changed.
  void Update() { task_.Ask(); }
  // At the end: writes what still waits to be written.
  void Finish() { task_.Finish(); }

 private:
  void Write();

  const std::string path_;
  const callbacks_t callbacks_;
  PacedTask task_;
  bool has_failed_ = false;  // the last time
};

// Why |path| cannot be replaced, in a few words; empty when it can: only a
// regular file, or nothing, may stand there. To put a file in the place of a
// device or a link would break what others use it for.
std::string FindFaultOfMetricsPath(const std::string& path);

}  // namespace vantrel
