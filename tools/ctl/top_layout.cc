#include "tools/ctl/top_layout.h"

#include <algorithm>
#include <utility>

#include "common/printable.h"

namespace vantrel {
namespace {

std::string DescribeFacts(const TopModel& model) {
  const auto& state = model.GetState();
  if (!state) return "";
  std::string text = state->uptime_ms == 0
                         ? std::string("not up")
                         : "up " + FormatUptime(state->uptime_ms);
  text += ", " + Count(state->starts, "start");
  text += !state->network ? ", network unknown"
                          : ", network " + std::to_string(state->network->id) +
                                (state->network->is_metered ? ", metered"
                                                            : ", not metered");
  if (model.GetDump()) {
    const link_dump_t& dump = *model.GetDump();
    text += ", " + Count(dump.streams.size(), "stream") + ", " +
            Count(dump.queued_messages, "message") + " queued (" +
            FormatTotal(dump.queued_bytes) + ")";
  }
  return text;
}

top_head_t MakeHead(const TopModel& model) {
  const auto& state = model.GetState();
  top_head_t head = {
      "",   false, "", "", false, {}, model.GetLinkRate(), model.GetHistory(),
      false};
  if (state) {
    head.state = GetPhaseName(state->phase);
    head.is_well = state->phase == launch_state_t::Phase::kRunning;
    head.more = " over " + state->link + ", protocol " + state->protocol;
    head.has_link = true;
    head.total = state->link_traffic;
  }
  if (!model.IsConnected()) {
    head.state = "the launcher has gone";
    head.is_well = false;
  }
  head.facts = DescribeFacts(model);
  return head;
}

Table MakeApplications(const TopModel& model, const top_view_t& view) {
  const bool has_totals = view.columns >= kColumnsForTotals;
  Table table({{"UID", kIdColumns, view.columns >= kColumnsForIds},
               {"APPLICATION", 0, true},
               {"DOWN", kRateColumns, true},
               {"UP", kRateColumns, true},
               {"RECEIVED", kBytesColumns, has_totals},
               {"SENT", kBytesColumns, has_totals}},
              view.columns);
  for (const auto& row : model.GetApplications(view.sort)) {
    table.AddRow({std::to_string(row.uid),
                  row.name.empty() ? "uid " + std::to_string(row.uid)
                                   : ToPrintable(row.name),
                  FormatRate(row.rate.rx), FormatRate(row.rate.tx),
                  FormatTotal(row.total.rx_bytes),
                  FormatTotal(row.total.tx_bytes)});
  }
  return table;
}

Table MakeStreams(const TopModel& model, const top_view_t& view) {
  const bool has_owner = view.columns >= kColumnsForTotals;
  Table table(
      {{"STREAM", kIdColumns, view.columns >= kColumnsForIds},
       {has_owner ? "REMOTE                 APPLICATION" : "REMOTE", 0, true},
       {"DOWN", kRateColumns, true},
       {"UP", kRateColumns, true},
       {"WAITING", kBytesColumns, has_owner}},
      view.columns);
  constexpr size_t kRemoteColumns = 23;  // the longest endpoint and a blank
  for (const auto& row : model.GetStreams(view.sort)) {
    const std::string remote = ToPrintable(row.dump.remote);
    table.AddRow({std::to_string(row.dump.id),
                  has_owner
                      ? Fit(remote, kRemoteColumns) + ToPrintable(row.owner)
                      : remote,
                  FormatRate(row.rate.rx), FormatRate(row.rate.tx),
                  FormatTotal(row.dump.waiting_bytes)});
  }
  return table;
}

// Why there are no applications to show.
std::string ExplainEmptiness(const launch_state_t& state) {
  if (state.protocol == "20") {
    return "no traffic by application: protocol 20 keeps no statistics";
  }
  return state.stats_time_ms == 0
             ? "traffic by application: only with --log or --stats-every"
             : "no application has moved anything";
}

void Append(std::vector<TextLine>* lines, const std::vector<TextLine>& more) {
  lines->insert(lines->end(), more.begin(), more.end());
}

// Both tables in |room| lines; the streams get what the applications leave, and
// half of it at least.
std::vector<TextLine> LayOutTables(const TopModel& model,
                                   const top_view_t& view, size_t room) {
  std::vector<TextLine> lines;
  const Table applications = MakeApplications(model, view);
  const Table streams = MakeStreams(model, view);
  const bool has_streams = model.GetDump().has_value();
  const size_t for_streams =
      has_streams ? std::min(streams.GetRowCount() + 1, room / 2) : 0;
  if (applications.GetRowCount() > 1) {
    lines = applications.GetRows(room - for_streams);
  } else if (model.GetState() && room > 0) {
    lines = {{{ExplainEmptiness(*model.GetState()), TextStyle::kDim}}};
  }
  if (has_streams && room > lines.size()) {
    lines.emplace_back();
    Append(&lines, streams.GetRows(room - lines.size()));
  }
  return lines;
}

}  // namespace

std::vector<TextLine> LayOutTop(const TopModel& model, const top_view_t& view) {
  return LayOutScreen(MakeHead(model), view, [&](size_t room) {
    return LayOutTables(model, view, room);
  });
}

}  // namespace vantrel
