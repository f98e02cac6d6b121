#include "tools/launch/metrics.h"

#include "support/metrics_text.h"

namespace vantrel {
namespace {

bool IsRunning(const launch_state_t& state) {
  return state.phase == launch_state_t::Phase::kRunning ||
         state.phase == launch_state_t::Phase::kStopping;
}

void AddUids(const launch_state_t& state, const PackageNames& names,
             uint64_t traffic_t::*bytes, MetricsText* text) {
  for (const auto& [uid, application] : state.by_uid) {
    text->Add({{"uid", std::to_string(uid)}, {"package", names.Find(uid)}},
              application.traffic.*bytes);
  }
}

}  // namespace

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
  MetricsText text;
  text.Begin("vantrel_up", "gauge", "1 while the daemon runs.");
  text.Add({}, IsRunning(state) ? 1 : 0);
  text.Begin("vantrel_starts_total", "counter",
             "How often the daemon has started.");
  text.Add({}, state.starts);
  text.Begin("vantrel_link_received_bytes_total", "counter",
             "Bytes relayed from the companion.");
  text.Add({}, link.rx_bytes);
  text.Begin("vantrel_link_sent_bytes_total", "counter",
             "Bytes relayed to the companion.");
  text.Add({}, link.tx_bytes);
  if (state.network) {
    text.Begin("vantrel_network_metered", "gauge",
               "1 while the companion's network is metered.");
    text.Add({{"network", std::to_string(state.network->id)}},
             state.network->is_metered ? 1 : 0);
  }
  text.Begin("vantrel_uid_received_bytes_total", "counter",
             "Bytes received for a UID.");
  AddUids(state, names, &traffic_t::rx_bytes, &text);
  text.Begin("vantrel_uid_sent_bytes_total", "counter",
             "Bytes sent for a UID.");
  AddUids(state, names, &traffic_t::tx_bytes, &text);
  return text.Get();
}

}  // namespace vantrel
