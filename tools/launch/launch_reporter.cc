#include "tools/launch/launch_reporter.h"

#include <stdio.h>

#include <exception>

#include "tools/launch/status_text.h"

namespace vantrel {

LaunchReporter::LaunchReporter(const launch_options_t& options)
    : options_(options), has_metrics_file_(!options.metrics.empty()) {}

void LaunchReporter::Record(const status_record_t& record) {
  // Read afresh: packages come and go while the daemon runs.
  const PackageNames names = PackageNames::Load();
  const std::string text = RecordToText(record, names);
  Print(options_.is_json ? RecordToJson(record, names) : text);
  if (record.kind == status_record_t::kStarted) {
    metrics_.CountStart();
    metrics_.SetRunning(true);
    notifier_.Ready("running over " + options_.link.text);
  } else if (record.kind == status_record_t::kNetworkState) {
    notifier_.Status("running over " + options_.link.text + ", " + text);
  }
  metrics_.Update(record);
  WriteMetrics(names);
}

void LaunchReporter::DaemonEnded(int wait_status) {
  metrics_.SetRunning(false);
  WriteMetrics(PackageNames::Load());
  const std::string text = DaemonEndToText(wait_status);
  notifier_.Status(text);
  Print(options_.is_json ? DaemonEndToJson(wait_status) : text);
}

void LaunchReporter::Connecting() {
  notifier_.Status("connecting " + options_.link.text);
}

void LaunchReporter::Say(const std::string& message) {
  fprintf(stderr, "vantrel-launch: %s\n", message.c_str());
}

void LaunchReporter::Print(const std::string& line) {
  printf("%s\n", line.c_str());
  fflush(stdout);
}

void LaunchReporter::WriteMetrics(const PackageNames& names) {
  if (!has_metrics_file_) return;
  try {
    WriteFileAtomically(options_.metrics, metrics_.Format(names));
  } catch (const std::exception& e) {
    Say(std::string(e.what()) + "; no more metrics");
    has_metrics_file_ = false;
  }
}

}  // namespace vantrel
