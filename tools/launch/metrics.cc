#include "tools/launch/metrics.h"

namespace vantrel {
namespace {

std::string Head(const char* name, const char* type, const char* help) {
  return std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " " +
         type + "\n";
}

std::string FormatNetwork(const launch_state_t& state) {
  if (!state.network) return "";
  return Head("vantrel_network_metered", "gauge",
              "1 while the companion's network is metered.") +
         "vantrel_network_metered{network=\"" +
         std::to_string(state.network->id) + "\"} " +
         (state.network->is_metered ? "1" : "0") + "\n";
}

std::string FormatUids(const launch_state_t& state, const PackageNames& names) {
  std::string received = Head("vantrel_uid_received_bytes_total", "counter",
                              "Bytes received for a UID.");
  std::string sent =
      Head("vantrel_uid_sent_bytes_total", "counter", "Bytes sent for a UID.");
  for (const auto& [uid, application] : state.by_uid) {
    const std::string labels = "{uid=\"" + std::to_string(uid) +
                               "\",package=\"" +
                               EscapeLabelValue(names.Find(uid)) + "\"} ";
    received += "vantrel_uid_received_bytes_total" + labels +
                std::to_string(application.traffic.rx_bytes) + "\n";
    sent += "vantrel_uid_sent_bytes_total" + labels +
            std::to_string(application.traffic.tx_bytes) + "\n";
  }
  return received + sent;
}

bool IsRunning(const launch_state_t& state) {
  return state.phase == launch_state_t::Phase::kRunning ||
         state.phase == launch_state_t::Phase::kStopping;
}

}  // namespace

std::string EscapeLabelValue(const std::string& value) {
  std::string escaped;
  for (const char c : value) {
    if (c == '\\' || c == '"' || c == '\n') escaped += '\\';
    escaped += c == '\n' ? 'n' : c;
  }
  return escaped;
}

void CountRecord(const status_record_t& record, const PackageNames& names,
                 launch_state_t* state) {
  if (record.kind == status_record_t::Kind::kNetworkState) {
    state->network = {record.network.network_id, record.network.is_metered};
  }
  if (record.kind != status_record_t::Kind::kTransferStats) return;
  for (const auto& usage : record.stats.uid_transfer_stats()) {
    auto& application = state->by_uid[usage.uid()];
    application.name = names.Find(usage.uid());
    application.traffic.rx_bytes += usage.rx_bytes();
    application.traffic.tx_bytes += usage.tx_bytes();
  }
}

std::string FormatMetrics(const launch_state_t& state,
                          const PackageNames& names) {
  const traffic_t link = state.link_traffic.value_or(traffic_t());
  return Head("vantrel_up", "gauge", "1 while the daemon runs.") +
         "vantrel_up " + (IsRunning(state) ? "1" : "0") + "\n" +
         Head("vantrel_starts_total", "counter",
              "How often the daemon has started.") +
         "vantrel_starts_total " + std::to_string(state.starts) + "\n" +
         Head("vantrel_link_received_bytes_total", "counter",
              "Bytes relayed from the companion.") +
         "vantrel_link_received_bytes_total " + std::to_string(link.rx_bytes) +
         "\n" +
         Head("vantrel_link_sent_bytes_total", "counter",
              "Bytes relayed to the companion.") +
         "vantrel_link_sent_bytes_total " + std::to_string(link.tx_bytes) +
         "\n" + FormatNetwork(state) + FormatUids(state, names);
}

}  // namespace vantrel
