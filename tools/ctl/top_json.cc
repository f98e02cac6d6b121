#include "tools/ctl/top_json.h"

#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "support/record_fields.h"

namespace vantrel {
namespace {

using json = nlohmann::ordered_json;  // the members as we name them
using namespace record_fields;

void AddTraffic(const rate_t& rate, const traffic_t& total, json* fields) {
  (*fields)["rx_bytes_per_s"] = std::llround(rate.rx);
  (*fields)["tx_bytes_per_s"] = std::llround(rate.tx);
  (*fields)[kRxBytes] = total.rx_bytes;
  (*fields)[kTxBytes] = total.tx_bytes;
}

json ApplicationsToJson(const TopModel& model, TopModel::Sort sort) {
  json rows = json::array();
  for (const auto& row : model.GetApplications(sort)) {
    json fields = {{kUid, row.uid}};
    if (!row.name.empty()) fields[kName] = row.name;
    AddTraffic(row.rate, row.total, &fields);
    rows.push_back(std::move(fields));
  }
  return rows;
}

json StreamsToJson(const TopModel& model, TopModel::Sort sort) {
  json rows = json::array();
  for (const auto& row : model.GetStreams(sort)) {
    json fields = {{"id", row.dump.id}, {"remote", row.dump.remote}};
    if (!row.owner.empty()) fields["owner"] = row.owner;
    AddTraffic(row.rate, row.dump.traffic, &fields);
    fields["waiting_bytes"] = row.dump.waiting_bytes;
    rows.push_back(std::move(fields));
  }
  return rows;
}

void AddState(const TopModel& model, const launch_state_t& state,
              json* fields) {
  (*fields)[kLink] = state.link;
  (*fields)[kProtocol] = state.protocol;
  (*fields)[kUptime] = state.uptime_ms;
  (*fields)[kStarts] = state.starts;
  if (state.network) {
    (*fields)[kNetwork] = {{kNetworkId, state.network->id},
                           {kMetered, state.network->is_metered}};
  }
  if (state.link_traffic) {
    AddTraffic(model.GetLinkRate(), *state.link_traffic,
               &(*fields)["link_traffic"]);
  }
}

}  // namespace

std::string TopToJson(const TopModel& model, TopModel::Sort sort,
                      const std::string& note) {
  const auto& state = model.GetState();
  json fields = {{kRecord, "top"}, {"connected", model.IsConnected()}};
  if (state) {
    fields[kState] = GetPhaseName(state->phase);
    AddState(model, *state, &fields);
  }
  if (!note.empty()) fields["note"] = note;
  if (model.GetDump()) {
    fields["queued_messages"] = model.GetDump()->queued_messages;
    fields["queued_bytes"] = model.GetDump()->queued_bytes;
    fields["streams"] = StreamsToJson(model, sort);
  }
  fields["applications"] = ApplicationsToJson(model, sort);
  // Names come from a file and from a log, in which anything can stand; in
  // ASCII nothing commands a terminal.
  return fields.dump(-1, ' ', true, json::error_handler_t::replace);
}

}  // namespace vantrel
