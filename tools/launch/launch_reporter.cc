#include "tools/launch/launch_reporter.h"

#include <unistd.h>

#include <exception>

#include "common/printable.h"
#include "tools/launch/status_text.h"

namespace vantrel {
namespace {

constexpr char kProgram[] = "vantrel-launch: ";

const char* GetTextBeforeDropped(bool is_json) {
  return is_json ? R"({"record":"dropped","lines":)" : "dropped ";
}

}  // namespace

LaunchReporter::LaunchReporter(const launch_options_t& options, EventLoop& loop)
    : options_(options),
      records_(loop.GetContext(), STDOUT_FILENO,
               GetTextBeforeDropped(options.is_json),
               options.is_json ? "}" : " lines"),
      talk_(loop.GetContext(), STDERR_FILENO,
            std::string(kProgram) + "dropped ", " messages"),
      has_metrics_file_(!options.metrics.empty()) {
  state_.link = options.link.text;
  state_.protocol = options.protocol;
  if (!options.is_direct) state_.link_traffic.emplace();
  if (options.status_socket.empty()) return;
  status_server_.emplace(
      loop, options.status_socket,
      StatusServer::callbacks_t{
          [this] { return GetStateLine(); },
          [this](const std::string& message) { Say(message); }});
}

void LaunchReporter::Connecting() {
  service_manager_.Notify("STATUS=connecting " + options_.link.text);
  Enter(launch_state_t::kConnecting);
}

void LaunchReporter::Record(const status_record_t& record) {
  // Read afresh: packages come and go while the daemon runs.
  const PackageNames names = PackageNames::Load();
  const std::string text = RecordToText(record, names);
  Print(text, RecordToJson(record, names));
  CountRecord(record, names, &state_);
  switch (record.kind) {
    case status_record_t::kStarted:
      ++state_.starts;
      started_ms_ = GetTimeMs();
      service_manager_.Notify("READY=1\nSTATUS=running over " +
                              options_.link.text);
      Enter(launch_state_t::kRunning);
      break;
    case status_record_t::kNetworkState:
      service_manager_.Notify("STATUS=running over " + options_.link.text +
                              ", " + text);
      Enter(state_.phase);
      break;
    case status_record_t::kTransferStats:
      state_.stats_time_ms = GetTimeMs();
      break;
    case status_record_t::kExitCode:
      break;
  }
  WriteMetrics(names);
}

void LaunchReporter::Stopping() {
  service_manager_.Notify("STOPPING=1\nSTATUS=stopping");
  Enter(launch_state_t::kStopping);
}

void LaunchReporter::DaemonEnded(int wait_status) {
  started_ms_ = 0;
  const std::string text = DaemonEndToText(wait_status);
  service_manager_.Notify("STATUS=" + text);
  Print(text, DaemonEndToJson(wait_status));
  Enter(launch_state_t::kEnded);
  WriteMetrics(PackageNames::Load());
}

void LaunchReporter::Waiting(std::chrono::seconds time) {
  Say("connecting again in " + std::to_string(time.count()) + " s");
  Enter(launch_state_t::kWaiting);
}

void LaunchReporter::AddLinkBytes(uint64_t received, uint64_t sent) {
  state_.link_traffic->rx_bytes += received;
  state_.link_traffic->tx_bytes += sent;
}

void LaunchReporter::Print(const std::string& text, const std::string& json) {
  records_.Write(options_.is_json ? json : text);
  if (status_server_) status_server_->Send(json);
}

void LaunchReporter::Enter(launch_state_t::Phase phase) {
  state_.phase = phase;
  if (status_server_) status_server_->SendState();
}

std::string LaunchReporter::GetStateLine() {
  if (count_link_bytes_) count_link_bytes_();
  state_.time_ms = GetTimeMs();
  state_.uptime_ms = started_ms_ == 0 ? 0 : state_.time_ms - started_ms_;
  return StateToJson(state_);
}

uint64_t LaunchReporter::GetTimeMs() const {
  const auto time = GetSteadyTime() - began_;
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

void LaunchReporter::Say(const std::string& message) {
  talk_.Write(kProgram + EscapeControls(message));
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
    WriteFileAtomically(options_.metrics, FormatMetrics(state_, names));
  } catch (const std::exception& e) {
    Say(std::string(e.what()) + "; no more metrics");
    has_metrics_file_ = false;
  }
}

}  // namespace vantrel
