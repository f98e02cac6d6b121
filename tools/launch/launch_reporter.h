#pragma once

#include <stdint.h>

#include <array>
#include <string>

#include "programs/service_manager.h"
#include "tools/launch/launch_options.h"
#include "tools/launch/line_writer.h"
#include "tools/launch/metrics.h"
#include "tools/launch/status_reader.h"

namespace vantrel {

// Tells everybody who listens what happens: records on standard output, talk
// on standard error, totals in the metrics file, progress to the service
// manager. None of them is ever waited for.
class LaunchReporter {
 public:
  explicit LaunchReporter(const launch_options_t& options);

  void Record(const status_record_t& record);
  void DaemonEnded(int wait_status);
  void Stopping() { service_manager_.Notify("STOPPING=1\nSTATUS=stopping"); }
  void Connecting();
  void AddLinkBytes(uint64_t received, uint64_t sent) {
    metrics_.AddLinkBytes(received, sent);
  }
  // One line for a person.
  void Say(const std::string& message);

  // Where something waits to be written, each a descriptor or -1; and to be
  // called when one of them is writable.
  std::array<int, 2> GetFdsToWrite() const;
  void Flush();
  // At the end: gives readers a last moment, and says what they did not read.
  void Finish();

 private:
  void WriteMetrics(const PackageNames& names);

  const launch_options_t& options_;  // not owned
  LineWriter records_;
  LineWriter talk_;
  Metrics metrics_;
  ServiceManager service_manager_;
  bool has_metrics_file_;
};

}  // namespace vantrel
