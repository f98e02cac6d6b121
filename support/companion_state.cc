#include "support/companion_state.h"

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
using State = companion_state_t;

constexpr std::array<std::pair<companion_state_t::Phase, const char*>, 2>
    kPhases{{{companion_state_t::Phase::kRunning, "running"},
             {companion_state_t::Phase::kStopping, "stopping"}}};

constexpr std::array<std::pair<State::device_t::Phase, const char*>, 3>
    kDevicePhases{{{State::device_t::Phase::kConnecting, "connecting"},
                   {State::device_t::Phase::kRunning, "running"},
                   {State::device_t::Phase::kClosing, "closing"}}};

template <typename Phases, typename Phase>
const char* FindName(const Phases& phases, Phase phase) {
  for (const auto& [named, name] : phases) {
    if (phase == named) return name;
  }
  return "";
}

template <typename Phases>
auto FindPhase(const Phases& phases, const std::string& name) {
  for (const auto& [phase, phase_name] : phases) {
    if (name == phase_name) return phase;
  }
  throw std::runtime_error("unknown state " + name);
}

json StreamToJson(const State::stream_t& stream) {
  json fields = {{kId, stream.id}, {kRemote, stream.remote}};
  fields.update(TrafficToJson(stream.traffic));
  fields[kAge] = stream.age_ms;
  return fields;
}

json ApplicationToJson(const State::application_t& application) {
  json fields = json::object();
  if (application.uid) fields[kUid] = *application.uid;
  fields.update(TrafficToJson(application.traffic));
  if (!application.name.empty()) fields[kName] = application.name;
  fields[kOpened] = application.streams_opened;
  fields[kOpen] = application.streams_open;
  fields[kOldest] = application.oldest_stream_ms;
  fields[kDenied] = application.streams_denied;
  fields[kRxDatagrams] = application.rx_datagrams;
  fields[kTxDatagrams] = application.tx_datagrams;
  fields[kDropped] = application.dropped_datagrams;
  json streams = json::array();
  for (const State::stream_t& stream : application.streams) {
    streams.push_back(StreamToJson(stream));
  }
  fields[kStreams] = std::move(streams);
  return fields;
}

json DeviceToJson(const State::device_t& device) {
  json fields = {{kId, device.id},
                 {kState, GetPhaseName(device.phase)},
                 {kLink, device.link},
                 {kProtocol, device.protocol},
                 {kUptime, device.uptime_ms},
                 {kLinkBytes, TrafficToJson(device.link_traffic)},
                 {kPace, device.pace},
                 {kWaiting, device.waiting_bytes}};
  json applications = json::array();
  for (const State::application_t& application : device.applications) {
    applications.push_back(ApplicationToJson(application));
  }
  fields[kUids] = std::move(applications);
  return fields;
}

State::stream_t ParseStream(const json& fields) {
  State::stream_t stream;
  ReadInteger(fields.at(kId), &stream.id);
  fields.at(kRemote).get_to(stream.remote);
  stream.traffic = ParseTraffic(fields);
  ReadInteger(fields.at(kAge), &stream.age_ms);
  return stream;
}

State::application_t ParseApplication(const json& fields) {
  State::application_t application;
  if (const auto uid = fields.find(kUid); uid != fields.end()) {
    ReadInteger(*uid, &application.uid.emplace());
  }
  application.name = fields.value(kName, std::string());
  application.traffic = ParseTraffic(fields);
  ReadInteger(fields.at(kOpened), &application.streams_opened);
  ReadInteger(fields.at(kOpen), &application.streams_open);
  ReadInteger(fields.at(kOldest), &application.oldest_stream_ms);
  ReadInteger(fields.at(kDenied), &application.streams_denied);
  ReadInteger(fields.at(kRxDatagrams), &application.rx_datagrams);
  ReadInteger(fields.at(kTxDatagrams), &application.tx_datagrams);
  ReadInteger(fields.at(kDropped), &application.dropped_datagrams);
  for (const json& stream : fields.at(kStreams)) {
    application.streams.push_back(ParseStream(stream));
  }
  return application;
}

State::device_t ParseDevice(const json& fields) {
  State::device_t device;
  ReadInteger(fields.at(kId), &device.id);
  device.phase = FindPhase(kDevicePhases, fields.at(kState).get<std::string>());
  fields.at(kLink).get_to(device.link);
  fields.at(kProtocol).get_to(device.protocol);
  ReadInteger(fields.at(kUptime), &device.uptime_ms);
  device.link_traffic = ParseTraffic(fields.at(kLinkBytes));
  ReadInteger(fields.at(kPace), &device.pace);
  ReadInteger(fields.at(kWaiting), &device.waiting_bytes);
  for (const json& application : fields.at(kUids)) {
    device.applications.push_back(ParseApplication(application));
  }
  return device;
}

companion_state_t ParseFields(const json& fields) {
  companion_state_t state;
  state.phase = FindPhase(kPhases, fields.at(kState).get<std::string>());
  ReadInteger(fields.at(kTime), &state.time_ms);
  ReadInteger(fields.at(kUptime), &state.uptime_ms);
  ReadInteger(fields.at(kStarts), &state.links);
  for (const json& device : fields.at(kDevices)) {
    state.devices.push_back(ParseDevice(device));
  }
  const json& left_out = fields.at(kLeftOut);
  ReadInteger(left_out.at(kDevices), &state.left_out.devices);
  ReadInteger(left_out.at(kUids), &state.left_out.applications);
  ReadInteger(left_out.at(kStreams), &state.left_out.streams);
  return state;
}

}  // namespace

const char* GetPhaseName(companion_state_t::Phase phase) {
  return FindName(kPhases, phase);
}

const char* GetPhaseName(State::device_t::Phase phase) {
  return FindName(kDevicePhases, phase);
}

std::string StateToJson(const companion_state_t& state) {
  // The kind of the record and the phase have the same name.
  json fields = {{kRecord, kState},
                 {kState, GetPhaseName(state.phase)},
                 {kTime, state.time_ms},
                 {kUptime, state.uptime_ms},
                 {kStarts, state.links}};
  json devices = json::array();
  for (const State::device_t& device : state.devices) {
    devices.push_back(DeviceToJson(device));
  }
  fields[kDevices] = std::move(devices);
  fields[kLeftOut] = {{kDevices, state.left_out.devices},
                      {kUids, state.left_out.applications},
                      {kStreams, state.left_out.streams}};
  // A device may call its packages whatever it likes; it must not end us.
  return fields.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::optional<companion_state_t> ParseCompanionState(const std::string& line) {
  try {
    const json fields = json::parse(line);
    if (fields.at(kRecord) != kState || !fields.contains(kDevices)) {
      return std::nullopt;
    }
    return ParseFields(fields);
  } catch (const json::exception& e) {
    throw std::runtime_error(e.what());
  }
}

}  // namespace vantrel
