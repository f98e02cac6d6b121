#include "companion/reporter.h"

#include <errno.h>
#include <string.h>

#include <chrono>
#include <system_error>
#include <utility>

#include "companion/companion_log.h"
#include "companion/state_report.h"
#include "companion/tcp_address.h"

namespace vantrel {
namespace {

void LogWarning(const std::string& text) {
  ProgramLog().Write(LogLevel::kWarning, LogKind::kState, "%s", text.c_str());
}

bool LogFailure(const std::string& text) {
  ProgramLog().Write(LogLevel::kError, LogKind::kState, "%s", text.c_str());
  return false;
}

double GetUnixTime() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

}  // namespace

Reporter::Reporter(asio::io_context& loop, const companion_options_t& options,
                   std::function<std::vector<const DeviceLink*>()> get_links)
    : loop_(loop),
      options_(options),
      get_links_(std::move(get_links)),
      figures_(start_, GetUnixTime()) {}

size_t Reporter::CountDescriptors(const companion_options_t& options) {
  return (options.status_socket.empty() ? 0 : 1 + StatusServer::kMaxReaders) +
         (options.metrics.empty() ? 0 : 1) +
         (options.metrics_listen ? 1 + MetricsServer::kMaxConnections : 0);
}

bool Reporter::Open(size_t max_links) {
  max_links_ = max_links;
  if (!options_.metrics.empty()) {
    metrics_file_.emplace(
        loop_, options_.metrics,
        MetricsFile::callbacks_t{[this] { return GetMetrics(); }, LogWarning});
    UpdateMetricsFile();
  }
  return OpenStatusSocket() && OpenMetricsServer();
}

bool Reporter::OpenStatusSocket() {
  if (options_.status_socket.empty()) return true;
  try {
    status_server_.emplace(
        loop_, options_.status_socket,
        StatusServer::callbacks_t{[this] { return GetState(); }, LogWarning});
    return true;
  } catch (const std::system_error& e) {
    return LogFailure(e.what());
  }
}

bool Reporter::OpenMetricsServer() {
  if (!options_.metrics_listen) return true;
  const link_address_t& where = *options_.metrics_listen;
  const std::string text = where.host + ":" + where.port;
  std::string reason;
  auto address = FindTcpAddress(where, &reason);
  if (!address) return LogFailure("no metrics at " + text + ": " + reason);
  if (!IsLoopback(*address)) {
    LogWarning("whoever reaches " + text +
               " sees which applications use the network, and how much");
  }
  metrics_server_.emplace(loop_, [this] { return GetMetrics(); });
  if (!metrics_server_->Open(&*address)) {
    return LogFailure("no metrics at " + text + ": " + strerror(errno));
  }
  ProgramLog().Write(LogLevel::kInfo, LogKind::kState,
                     "metrics at http://%s/metrics", ToText(*address).c_str());
  return true;
}

void Reporter::GoOn() {
  if (status_server_) status_server_->GoOn();
  if (metrics_server_) metrics_server_->GoOn();
}

void Reporter::OnConnected(const DeviceLink& link) {
  ++links_ever_;
  figures_.OnConnected(link.GetPeer().device);
  UpdateMetricsFile();
}

void Reporter::OnOver(const DeviceLink& link) {
  figures_.Keep(GetUsage(link), GetSteadyTime());
}

void Reporter::OnTick() {
  if (!metrics_file_) return;
  LookAtAll();
  const uint64_t activity = figures_.GetActivity();
  if (activity != std::exchange(activity_, activity)) UpdateMetricsFile();
}

void Reporter::Finish() {
  UpdateMetricsFile();
  if (metrics_file_) metrics_file_->Finish();
}

std::string Reporter::GetState() const {
  const SteadyTime now = GetSteadyTime();
  companion_state_t state = TellState(get_links_(), now);
  state.phase = phase_;
  state.time_ms = ToMs(now.time_since_epoch());
  state.uptime_ms = ToMs(now - start_);
  state.links = links_ever_;
  return StateToJson(state);
}

std::string Reporter::GetMetrics() {
  LookAtAll();
  return figures_.Format(max_links_);
}

void Reporter::LookAtAll() {
  const SteadyTime now = GetSteadyTime();
  figures_.BeginLook();
  for (const DeviceLink* const link : get_links_()) {
    figures_.Look(GetUsage(*link), link->IsUp(), now);
  }
}

Figures::usage_t Reporter::GetUsage(const DeviceLink& link) {
  return {link.GetPeer().device, link.GetTraffic(), link.GetApplications()};
}

void Reporter::UpdateMetricsFile() {
  if (metrics_file_) metrics_file_->Update();
}

}  // namespace vantrel
