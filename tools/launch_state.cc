#include "tools/launch_state.h"

#include <array>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "support/json_number.h"
#include "support/record_fields.h"
#include "support/traffic_json.h"

namespace vantrel {
namespace {

using json = nlohmann::ordered_json;  // the members as we name them
using namespace record_fields;

constexpr char kStatsTime[] = "stats_time_ms";

constexpr std::array<std::pair<launch_state_t::Phase, const char*>, 5> kPhases{{
    {launch_state_t::Phase::kConnecting, "connecting"},
    {launch_state_t::Phase::kRunning, "running"},
    {launch_state_t::Phase::kStopping, "stopping"},
    {launch_state_t::Phase::kWaiting, "waiting"},
    {launch_state_t::Phase::kEnded, "ended"},
}};

launch_state_t::Phase ParsePhase(const std::string& name) {
  for (const auto& [phase, phase_name] : kPhases) {
    if (name == phase_name) return phase;
  }
  throw std::runtime_error("unknown state " + name);
}

json UidsToJson(const launch_state_t& state) {
  json uids = json::array();
  for (const auto& [uid, application] : state.by_uid) {
    json entry = {{kUid, uid}};
    entry.update(TrafficToJson(application.traffic));
    if (!application.name.empty()) entry[kName] = application.name;
    uids.push_back(std::move(entry));
  }
  return uids;
}

launch_state_t ParseFields(const json& fields) {
  launch_state_t state;
  state.phase = ParsePhase(fields.at(kState).get<std::string>());
  fields.at(kLink).get_to(state.link);
  fields.at(kProtocol).get_to(state.protocol);
  ReadInteger(fields.at(kTime), &state.time_ms);
  ReadInteger(fields.at(kStatsTime), &state.stats_time_ms);
  ReadInteger(fields.at(kUptime), &state.uptime_ms);
  ReadInteger(fields.at(kStarts), &state.starts);
  if (const auto found = fields.find(kNetwork); found != fields.end()) {
    launch_state_t::network_t network;
    ReadInteger(found->at(kNetworkId), &network.id);
    found->at(kMetered).get_to(network.is_metered);
    state.network = network;
  }
  if (const auto bytes = fields.find(kLinkBytes); bytes != fields.end()) {
    state.link_traffic = ParseTraffic(*bytes);
  }
  for (const json& entry : fields.at(kUids)) {
    uint32_t uid = 0;
    ReadInteger(entry.at(kUid), &uid);
    state.by_uid[uid] = {entry.value(kName, std::string()),
                         ParseTraffic(entry)};
  }
  return state;
}

}  // namespace

const char* GetPhaseName(launch_state_t::Phase phase) {
  for (const auto& [named, name] : kPhases) {
    if (phase == named) return name;
  }
  return "";
}

std::string StateToJson(const launch_state_t& state) {
  // The kind of the record and the phase have the same name.
  json fields = {{kRecord, kState},      {kState, GetPhaseName(state.phase)},
                 {kLink, state.link},    {kProtocol, state.protocol},
                 {kTime, state.time_ms}, {kUptime, state.uptime_ms},
                 {kStarts, state.starts}};
  if (state.network) {
    fields[kNetwork] = {{kNetworkId, state.network->id},
                        {kMetered, state.network->is_metered}};
  }
  if (state.link_traffic) {
    fields[kLinkBytes] = TrafficToJson(*state.link_traffic);
  }
  fields[kStatsTime] = state.stats_time_ms;
  fields[kUids] = UidsToJson(state);
  // A package list is not always valid UTF-8; one odd name must not end us.
  return fields.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::optional<launch_state_t> ParseState(const std::string& line) {
  try {
    const json fields = json::parse(line);
    if (fields.at(kRecord) != kState || fields.contains(kDevices)) {
      return std::nullopt;
    }
    return ParseFields(fields);
  } catch (const json::exception& e) {
    throw std::runtime_error(e.what());
  }
}

}  // namespace vantrel
