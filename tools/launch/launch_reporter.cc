#include "tools/launch/launch_reporter.h"

#include <unistd.h>

#include <utility>

#include "common/printable.h"
#include "tools/launch/metrics.h"
#include "tools/launch/status_text.h"

namespace vantrel {
namespace {

constexpr char kPrefix[] = "vantrel-launch: ";

const char* GetTextBeforeDropped(bool is_json) {
  return is_json ? R"({"record":"dropped","lines":)" : "dropped ";
}

}  // namespace

LaunchReporter::LaunchReporter(const launch_options_t& options, EventLoop& loop)
    : options_(options),
      records_(loop.GetContext(), STDOUT_FILENO,
               GetTextBeforeDropped(options.is_json),
               options.is_json ? "}" : " lines"),
      talk_(loop.GetContext(), STDERR_FILENO, std::string(kPrefix) + "dropped ",
            " messages"),
      network_change_(loop.GetContext(), [this] { TellNetwork(); }) {
  state_.link = options.link.text;
  state_.protocol = options.protocol;
  if (!options.is_direct) state_.link_traffic.emplace();
  const auto say = [this](const std::string& message) { Say(message); };
  if (!options.metrics.empty()) {
    const auto get_text = [this] {
      return FormatMetrics(state_, packages_.GetNames(GetSteadyTime()));
    };
    metrics_.emplace(loop.GetContext(), options.metrics,
                     MetricsFile::callbacks_t{get_text, say});
  }
  if (!options.status_socket.empty()) {
    const auto get_state = [this] { return GetStateLine(); };
    status_server_.emplace(loop.GetContext(), options.status_socket,
                           StatusServer::callbacks_t{get_state, say});
  }
}

void LaunchReporter::Connecting() {
  // However long the companion is away: it is the link that is not ready then.
  if (!std::exchange(is_ready_told_, true)) service_manager_.Notify("READY=1");
  state_.link = options_.link.text;
  Enter(launch_state_t::Phase::kConnecting, "connecting " + options_.link.text);
}

void LaunchReporter::Connected(const std::string& link,
                               const std::string& name) {
  state_.link = link;
  if (!name.empty()) Say("connected to " + name + " (" + link + ")");
}

void LaunchReporter::Failed(const std::string& reason) {
  Say(reason);
  last_failure_ = reason;
}

void LaunchReporter::Record(const status_record_t& record) {
  const PackageNames& names = packages_.GetNames(GetSteadyTime());
  const std::string text = RecordToText(record, names);
  Print(text, WantsJson() ? RecordToJson(record, names) : "");
  CountRecord(record, names, &state_);
  switch (record.kind) {
    case status_record_t::Kind::kStarted:
      ++state_.starts;
      started_ms_ = GetTimeMs();
      network_.clear();
      Enter(launch_state_t::Phase::kRunning, "running over " + state_.link);
      break;
    case status_record_t::Kind::kNetworkState:
      // Most often the same as before.
      if (std::exchange(network_, text) != text) network_change_.Ask();
      break;
    case status_record_t::Kind::kTransferStats:
      state_.stats_time_ms = GetTimeMs();
      UpdateMetrics();
      break;
    case status_record_t::Kind::kExitCode:
      break;
  }
}

void LaunchReporter::TellNetwork() {
  // The run may have ended since, and the next one has none yet.
  if (state_.phase != launch_state_t::Phase::kRunning || network_.empty())
    return;
  Enter(state_.phase, "running over " + state_.link + ", " + network_);
}

void LaunchReporter::Stopping() {
  service_manager_.Notify("STOPPING=1");
  Enter(launch_state_t::Phase::kStopping, "stopping");
}

void LaunchReporter::DaemonEnded(int wait_status) {
  started_ms_ = 0;
  last_failure_ = DaemonEndToText(wait_status);
  Print(last_failure_, DaemonEndToJson(wait_status));
  Enter(launch_state_t::Phase::kEnded, last_failure_);
}

void LaunchReporter::Waiting(std::chrono::seconds time) {
  const std::string text =
      "connecting again in " + std::to_string(time.count()) + " s";
  Say(text);
  Enter(launch_state_t::Phase::kWaiting, text + ": " + last_failure_);
}

void LaunchReporter::AddLinkBytes(uint64_t received, uint64_t sent) {
  if (received + sent == 0) return;
  state_.link_traffic->rx_bytes += received;
  state_.link_traffic->tx_bytes += sent;
  UpdateMetrics();
}

void LaunchReporter::Print(const std::string& text, const std::string& json) {
  records_.Write(options_.is_json ? json : text);
  if (status_server_) status_server_->Send(json);
}

bool LaunchReporter::WantsJson() const {
  return options_.is_json || (status_server_ && status_server_->HasReaders());
}

void LaunchReporter::Enter(launch_state_t::Phase phase,
                           const std::string& status) {
  state_.phase = phase;
  service_manager_.Notify("STATUS=" + EscapeControls(status));
  if (status_server_) status_server_->SendState();
  UpdateMetrics();
}

void LaunchReporter::UpdateMetrics() {
  if (metrics_) metrics_->Update();
}

std::string LaunchReporter::GetStateLine() {
  state_.time_ms = GetTimeMs();
  state_.uptime_ms = started_ms_ == 0 ? 0 : state_.time_ms - started_ms_;
  return StateToJson(state_);
}

uint64_t LaunchReporter::GetTimeMs() const {
  return ToMs(GetSteadyTime() - began_);
}

void LaunchReporter::Say(const std::string& message) {
  talk_.Write(kPrefix + EscapeControls(message));
}

void LaunchReporter::Finish() {
  if (metrics_) metrics_->Finish();
  const size_t unread = records_.Finish(kLastMomentMs);
  if (unread > 0) {
    Say("nobody has read " + std::to_string(unread) +
        " lines on standard output");
  }
  talk_.Finish(kLastMomentMs);
}

}  // namespace vantrel
