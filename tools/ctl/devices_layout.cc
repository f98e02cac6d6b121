// A companion's devices, with their applications and the streams of these.
#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "common/printable.h"
#include "tools/ctl/top_layout.h"

namespace vantrel {
namespace {

constexpr size_t kCountColumns = 9;  // "STREAMS" and two blanks
constexpr size_t kTimeColumns = 11;  // "1234:05:06" and a blank

// How many rows of each application and of each device are shown.
struct limits_t {
  size_t applications = SIZE_MAX;
  size_t streams = SIZE_MAX;
};

// Rows for |count|, of which |shown| at most; one more tells of the rest.
size_t CountRows(size_t count, size_t shown) {
  return count <= shown ? count : shown + (shown > 0 ? 1 : 0);
}

size_t CountRows(const DevicesModel::device_t& device, const limits_t& limits) {
  const size_t shown =
      std::min(device.applications.size(), limits.applications);
  size_t rows = 1 + CountRows(device.applications.size(), limits.applications);
  for (size_t i = 0; i < shown; ++i) {
    rows += CountRows(device.applications[i].streams.size(), limits.streams);
  }
  return rows;
}

// The longest list that either limit has to do with.
size_t FindLongest(const std::vector<DevicesModel::device_t>& devices) {
  size_t longest = 0;
  for (const DevicesModel::device_t& device : devices) {
    longest = std::max(longest, device.applications.size());
    for (const DevicesModel::application_t& application : device.applications) {
      longest = std::max(longest, application.streams.size());
    }
  }
  return longest;
}

// The largest limits with which all devices fit into |room| lines, if any do:
// streams are left out first, then applications.
limits_t FindLimits(const std::vector<DevicesModel::device_t>& devices,
                    TopDepth depth, size_t room) {
  const auto fits = [&](const limits_t& limits) {
    return std::accumulate(
               devices.begin(), devices.end(), size_t{1},
               [&limits](size_t rows, const DevicesModel::device_t& device) {
                 return rows + CountRows(device, limits);
               }) <= room;
  };
  limits_t limits;
  if (depth < TopDepth::kApplications) limits.applications = 0;
  if (depth < TopDepth::kStreams) limits.streams = 0;
  for (size_t* const limit : {&limits.streams, &limits.applications}) {
    if (*limit > 0 && !fits(limits)) *limit = FindLongest(devices);
    while (*limit > 0 && !fits(limits)) --*limit;
  }
  return limits;
}

std::string DescribeDevice(const companion_state_t::device_t& device) {
  return device.link +
         (device.protocol.empty() ? "" : ", protocol " + device.protocol) +
         ", link " + std::to_string(device.id) + " " +
         GetPhaseName(device.phase);
}

std::string DescribeApplication(
    const companion_state_t::application_t& application) {
  if (!application.uid) return "unknown owners";
  const std::string uid = "uid " + std::to_string(*application.uid);
  return application.name.empty() ? uid : application.name + ", " + uid;
}

// The tree, as rows of one table.
class DevicesTable {
 public:
  explicit DevicesTable(const top_view_t& view)
      : table_({{"DEVICE", 0, true},
                {"STREAMS", kCountColumns, view.columns >= kColumnsForIds},
                {"SINCE", kTimeColumns, view.columns >= kColumnsForTotals},
                {"DOWN", kRateColumns, true},
                {"UP", kRateColumns, true},
                {"RECEIVED", kBytesColumns, view.columns >= kColumnsForTotals},
                {"SENT", kBytesColumns, view.columns >= kColumnsForTotals},
                {"DENIED", kCountColumns, view.columns >= kColumnsForAll},
                {"DROPPED", kCountColumns, view.columns >= kColumnsForAll}},
               view.columns) {}

  void AddDevice(const DevicesModel::device_t& row, const limits_t& limits) {
    uint64_t open = 0;
    uint64_t denied = 0;
    uint64_t dropped = 0;
    for (const auto& one : row.device->applications) {
      open += one.streams_open;
      denied += one.streams_denied;
      dropped += one.dropped_datagrams;
    }
    Add(DescribeDevice(*row.device), std::to_string(open),
        row.device->uptime_ms, row.rate, row.device->link_traffic,
        std::to_string(denied), std::to_string(dropped), TextStyle::kTitle);
    const size_t shown = std::min(row.applications.size(), limits.applications);
    for (size_t i = 0; i < shown; ++i) {
      AddApplication(row.applications[i], limits);
    }
    AddRest("  ", row.applications.size() - shown, limits.applications);
  }

  std::vector<TextLine> GetRows(size_t lines) const {
    return table_.GetRows(lines);
  }

 private:
  void AddApplication(const DevicesModel::application_t& row,
                      const limits_t& limits) {
    const auto& one = *row.application;
    Add("  " + DescribeApplication(one), std::to_string(one.streams_open),
        one.oldest_stream_ms, row.rate, one.traffic,
        std::to_string(one.streams_denied),
        std::to_string(one.dropped_datagrams), TextStyle::kPlain);
    const size_t shown = std::min(row.streams.size(), limits.streams);
    for (size_t i = 0; i < shown; ++i) {
      const auto& stream = *row.streams[i].stream;
      Add("    " + std::to_string(stream.id) + " " + stream.remote, "",
          stream.age_ms, row.streams[i].rate, stream.traffic, "", "",
          TextStyle::kPlain);
    }
    AddRest("    ", row.streams.size() - shown, limits.streams);
  }

  // A row for |count| others, where any are shown at all.
  void AddRest(const char* indent, size_t count, size_t limit) {
    if (count == 0 || limit == 0) return;
    table_.AddRow({indent + ("and " + std::to_string(count) + " more"), "", "",
                   "", "", "", "", "", ""},
                  TextStyle::kDim);
  }

  void Add(const std::string& what, const std::string& open, uint64_t since_ms,
           const rate_t& rate, const traffic_t& total,
           const std::string& denied, const std::string& dropped,
           TextStyle style) {
    table_.AddRow(
        {ToPrintable(what), open, since_ms == 0 ? "" : FormatUptime(since_ms),
         FormatRate(rate.rx), FormatRate(rate.tx), FormatTotal(total.rx_bytes),
         FormatTotal(total.tx_bytes), denied, dropped},
        style);
  }

  Table table_;
};

std::string DescribeFacts(const companion_state_t& state) {
  std::string text = "up " + FormatUptime(state.uptime_ms) + ", " +
                     Count(state.links, "link") + " so far, " +
                     Count(state.devices.size(), "device");
  const struct {
    uint64_t count;
    const char* noun;
  } left_out[] = {{state.left_out.devices, "device"},
                  {state.left_out.applications, "application"},
                  {state.left_out.streams, "stream"}};
  for (const auto& part : left_out) {
    if (part.count > 0)
      text += ", " + Count(part.count, part.noun) + " left out";
  }
  return text;
}

top_head_t MakeHead(const DevicesModel& model) {
  const auto& state = model.GetState();
  top_head_t head = {
      "",  false, "", "", false, {}, model.GetLinkRate(), model.GetHistory(),
      true};
  if (state) {
    head.state = GetPhaseName(state->phase);
    head.is_well = state->phase == companion_state_t::Phase::kRunning;
    head.facts = DescribeFacts(*state);
    head.has_link = true;
    head.total = model.GetLinkTraffic();
  }
  if (!model.IsConnected()) {
    head.state = "the companion has gone";
    head.is_well = false;
  }
  return head;
}

}  // namespace

std::vector<TextLine> LayOutTop(const DevicesModel& model,
                                const top_view_t& view) {
  return LayOutScreen(MakeHead(model), view, [&](size_t room) {
    const auto devices = model.GetDevices(view.sort);
    const limits_t limits = FindLimits(devices, view.depth, room);
    DevicesTable table(view);
    for (const DevicesModel::device_t& device : devices)
      table.AddDevice(device, limits);
    return table.GetRows(room);
  });
}

}  // namespace vantrel
