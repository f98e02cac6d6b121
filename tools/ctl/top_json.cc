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

json ApplicationsToJson(const TopModel& model, TopSort sort) {
  json rows = json::array();
  for (const auto& row : model.GetApplications(sort)) {
    json fields = {{kUid, row.uid}};
    if (!row.name.empty()) fields[kName] = row.name;
    AddTraffic(row.rate, row.total, &fields);
    rows.push_back(std::move(fields));
  }
  return rows;
}

json StreamsToJson(const TopModel& model, TopSort sort) {
  json rows = json::array();
  for (const auto& row : model.GetStreams(sort)) {
    json fields = {{kId, row.dump.id}, {kRemote, row.dump.remote}};
    if (!row.owner.empty()) fields["owner"] = row.owner;
    AddTraffic(row.rate, row.dump.traffic, &fields);
    fields[kWaiting] = row.dump.waiting_bytes;
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

json ToJson(const DevicesModel::stream_t& row) {
  json fields = {{kId, row.stream->id}, {kRemote, row.stream->remote}};
  AddTraffic(row.rate, row.stream->traffic, &fields);
  fields[kAge] = row.stream->age_ms;
  return fields;
}

json ToJson(const DevicesModel::application_t& row) {
  const auto& application = *row.application;
  json fields = json::object();
  if (application.uid) fields[kUid] = *application.uid;
  if (!application.name.empty()) fields[kName] = application.name;
  AddTraffic(row.rate, application.traffic, &fields);
  fields[kOpened] = application.streams_opened;
  fields[kOpen] = application.streams_open;
  fields[kOldest] = application.oldest_stream_ms;
  fields[kDenied] = application.streams_denied;
  fields[kRxDatagrams] = application.rx_datagrams;
  fields[kTxDatagrams] = application.tx_datagrams;
  fields[kDropped] = application.dropped_datagrams;
  json& streams = fields[kStreams] = json::array();
  for (const auto& stream : row.streams) streams.push_back(ToJson(stream));
  return fields;
}

json ToJson(const DevicesModel::device_t& row) {
  const auto& device = *row.device;
  json fields = {{kId, device.id},
                 {kState, GetPhaseName(device.phase)},
                 {kLink, device.link},
                 {kProtocol, device.protocol},
                 {kUptime, device.uptime_ms}};
  AddTraffic(row.rate, device.link_traffic, &fields["link_traffic"]);
  fields[kPace] = device.pace;
  fields[kWaiting] = device.waiting_bytes;
  json& applications = fields["applications"] = json::array();
  for (const auto& application : row.applications) {
    applications.push_back(ToJson(application));
  }
  return fields;
}

// Names come from a file, a log or a device, in which anything can stand; in
// ASCII nothing commands a terminal.
std::string Dump(const json& fields) {
  return fields.dump(-1, ' ', true, json::error_handler_t::replace);
}

}  // namespace

std::string TopToJson(const TopModel& model, TopSort sort,
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
    fields[kStreams] = StreamsToJson(model, sort);
  }
  fields["applications"] = ApplicationsToJson(model, sort);
  return Dump(fields);
}

std::string TopToJson(const DevicesModel& model, TopSort sort,
                      const std::string& note) {
  const auto& state = model.GetState();
  json fields = {{kRecord, "top"}, {"connected", model.IsConnected()}};
  if (state) {
    fields[kState] = GetPhaseName(state->phase);
    fields[kUptime] = state->uptime_ms;
    fields[kStarts] = state->links;
    AddTraffic(model.GetLinkRate(), model.GetLinkTraffic(),
               &fields["link_traffic"]);
  }
  if (!note.empty()) fields["note"] = note;
  json& devices = fields[kDevices] = json::array();
  for (const auto& device : model.GetDevices(sort)) {
    devices.push_back(ToJson(device));
  }
  if (state) {
    fields[kLeftOut] = {{kDevices, state->left_out.devices},
                        {kUids, state->left_out.applications},
                        {kStreams, state->left_out.streams}};
  }
  return Dump(fields);
}

}  // namespace vantrel
