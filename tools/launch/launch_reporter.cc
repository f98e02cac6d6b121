#include "tools/launch/launch_reporter.h"

#include <unistd.h>

#include <exception>

#include "tools/launch/status_text.h"

namespace vantrel {
namespace {

constexpr char kProgram[] = "vantrel-launch: ";

// How long the end waits for a reader of each stream.
constexpr int kLastMomentMs = 200;

LineWriter MakeRecordWriter(bool is_json) {
  return is_json
             ? LineWriter(STDOUT_FILENO, R"({"record":"dropped","lines":)", "}")
             : LineWriter(STDOUT_FILENO, "dropped ", " lines");
}

}  // namespace

LaunchReporter::LaunchReporter(const launch_options_t& options)
    : options_(options),
      records_(MakeRecordWriter(options.is_json)),
      talk_(STDERR_FILENO, std::string(kProgram) + "dropped ", " messages"),
      has_metrics_file_(!options.metrics.empty()) {}

void LaunchReporter::Record(const status_record_t& record) {
  // Read afresh: packages come and go while the daemon runs.
  const PackageNames names = PackageNames::Load();
  const std::string text = RecordToText(record, names);
  records_.Write(options_.is_json ? RecordToJson(record, names) : text);
  if (record.kind == status_record_t::kStarted) {
    metrics_.CountStart();
    metrics_.SetRunning(true);
    service_manager_.Notify("READY=1\nSTATUS=running over " +
                            options_.link.text);
  } else if (record.kind == status_record_t::kNetworkState) {
    service_manager_.Notify("STATUS=running over " + options_.link.text + ", " +
                            text);
  }
  metrics_.Update(record);
  WriteMetrics(names);
}

void LaunchReporter::DaemonEnded(int wait_status) {
  metrics_.SetRunning(false);
  WriteMetrics(PackageNames::Load());
  const std::string text = DaemonEndToText(wait_status);
  service_manager_.Notify("STATUS=" + text);
  records_.Write(options_.is_json ? DaemonEndToJson(wait_status) : text);
}

void LaunchReporter::Connecting() {
  service_manager_.Notify("STATUS=connecting " + options_.link.text);
}

void LaunchReporter::Say(const std::string& message) {
  talk_.Write(kProgram + message);
}

std::array<int, 2> LaunchReporter::GetFdsToWrite() const {
  return {records_.GetFdToWrite(), talk_.GetFdToWrite()};
}

void LaunchReporter::Flush() {
  records_.Flush();
  talk_.Flush();
}

void LaunchReporter::Finish() {
  const size_t unread = records_.Finish(kLastMomentMs);
  if (unread > 0) {
    Say("nobody has read " + std::to_string(unread) +
        " lines on standard output");
  }
  talk_.Finish(kLastMomentMs);
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
