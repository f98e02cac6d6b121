#include "tools/ctl/top_layout.h"

#include <stdio.h>

#include <algorithm>
#include <array>
#include <utility>

#include "common/printable.h"

namespace vantrel {
namespace {

// Below these widths parts are left out.
constexpr size_t kColumnsForTotals = 70;
constexpr size_t kColumnsForIds = 56;

constexpr size_t kRateColumns = 11;   // "1.23 MB/s" and two blanks
constexpr size_t kBytesColumns = 10;  // "1.23 MB" and blanks
constexpr size_t kIdColumns = 10;     // the longest UID

std::string PadLeft(const std::string& text, size_t columns) {
  return std::string(columns - std::min(columns, text.size()), ' ') + text;
}

// Cut where it is too long, filled with blanks where it is too short.
std::string Fit(const std::string& text, size_t columns) {
  std::string fitted = text.substr(0, columns);
  return fitted + std::string(columns - fitted.size(), ' ');
}

std::string FormatRate(double rate) { return FormatBytes(rate) + "/s"; }

std::string FormatUptime(uint64_t ms) {
  const auto seconds = static_cast<unsigned long long>(ms / 1000);
  char text[48];
  snprintf(text, sizeof(text), "%llu:%02llu:%02llu", seconds / 3600,
           seconds / 60 % 60, seconds % 60);
  return text;
}

std::string Count(uint64_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

TextLine CutLine(const TextLine& line, size_t columns) {
  TextLine cut;
  for (const text_span_t& span : line) {
    cut.push_back({span.text.substr(0, columns), span.style});
    columns -= cut.back().text.size();
  }
  return cut;
}

TextLine StateLine(const TopModel& model, const top_view_t& view) {
  TextLine line = {{"vantrel ", TextStyle::kTitle}};
  const auto& state = model.GetState();
  if (!model.IsConnected()) {
    line.push_back({"the launcher has gone", TextStyle::kBad});
  } else if (state) {
    const bool is_well = state->phase == launch_state_t::Phase::kRunning;
    line.push_back({GetPhaseName(state->phase),
                    is_well ? TextStyle::kGood : TextStyle::kBad});
  }
  if (view.is_paused) line.push_back({" (paused)", TextStyle::kBad});
  if (state) {
    line.push_back({ToPrintable(" over " + state->link + ", protocol " +
                                state->protocol)});
  }
  return line;
}

TextLine FactsLine(const TopModel& model) {
  const auto& state = model.GetState();
  if (!state) return {};
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
            FormatBytes(static_cast<double>(dump.queued_bytes)) + ")";
  }
  return {{text}};
}

// The latest rates, one a column, the last one on the right.
std::string MakeGraph(const TopModel& model, double rate_t::*direction,
                      size_t columns, bool has_blocks) {
  static constexpr std::array<const char*, 9> kBlocks = {
      " ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  static constexpr std::array<const char*, 9> kAscii = {" ", ".", ".", ":", ":",
                                                        "+", "+", "#", "#"};
  const auto& history = model.GetHistory();
  // A single rate has nothing to be compared with.
  const size_t count =
      history.size() < 2 ? 0 : std::min(columns, history.size());
  const auto first = history.end() - static_cast<std::ptrdiff_t>(count);
  double most = 1;
  for (auto rate = first; rate != history.end(); ++rate) {
    most = std::max(most, (*rate).*direction);
  }
  std::string graph(columns - count, ' ');
  for (auto rate = first; rate != history.end(); ++rate) {
    const double part = (*rate).*direction / most;
    // Anything that moved is seen.
    const size_t level = static_cast<size_t>(part * 8 + (part > 0 ? 0.99 : 0));
    graph += (has_blocks ? kBlocks : kAscii)[std::min<size_t>(level, 8)];
  }
  return graph;
}

TextLine TrafficLine(const TopModel& model, const top_view_t& view,
                     const char* name, double rate_t::*rate,
                     uint64_t traffic_t::*total) {
  const auto& state = model.GetState();
  if (!state) return {};
  if (!state->link_traffic) {
    return {{std::string(name) + " unknown, for the link has no relay"}};
  }
  std::string text =
      name + PadLeft(FormatRate(model.GetLinkRate().*rate), kRateColumns);
  if (view.columns >= kColumnsForIds) {
    text +=
        PadLeft(FormatBytes(static_cast<double>((*state->link_traffic).*total)),
                kBytesColumns);
    text += " total";
  }
  text += "  ";
  if (text.size() > view.columns) return CutLine({{text}}, view.columns);
  return {{text},
          {MakeGraph(model, rate, view.columns - text.size(), view.has_blocks),
           TextStyle::kGood}};
}

TextLine KeysLine(TopModel::Sort sort) {
  TextLine line = {{"q", TextStyle::kTitle},
                   {" quit  "},
                   {"p", TextStyle::kTitle},
                   {" pause  sort by:"}};
  const struct {
    TopModel::Sort sort;
    const char* key;
    const char* rest;
  } sorts[] = {{TopModel::Sort::kDown, "d", "own"},
               {TopModel::Sort::kUp, "u", "p"},
               {TopModel::Sort::kTotal, "t", "otal"},
               {TopModel::Sort::kName, "n", "ame"}};
  for (const auto& s : sorts) {
    const auto style = s.sort == sort ? TextStyle::kHeading : TextStyle::kPlain;
    line.push_back({" "});
    line.push_back({s.key, TextStyle::kTitle});
    line.push_back({s.rest, style});
  }
  return line;
}

// A table with one column of text that takes what the others leave.
class Table {
 public:
  struct column_t {
    const char* title;
    size_t columns;  // 0: what is left; text, the others are numbers
    bool is_shown;
  };
  Table(std::vector<column_t> layout, size_t columns)
      : layout_(std::move(layout)) {
    size_t taken = 0;
    for (const column_t& c : layout_) taken += c.is_shown ? c.columns : 0;
    text_columns_ = columns - std::min(columns, taken);
    std::vector<std::string> titles;
    for (const column_t& c : layout_) titles.emplace_back(c.title);
    AddRow(titles, TextStyle::kHeading);
  }

  void AddRow(const std::vector<std::string>& cells,
              TextStyle style = TextStyle::kPlain) {
    std::string text;
    for (size_t i = 0; i < cells.size(); ++i) {
      if (!layout_[i].is_shown) continue;
      text += layout_[i].columns == 0
                  ? "  " + Fit(cells[i], text_columns_ -
                                             std::min<size_t>(2, text_columns_))
                  : PadLeft(cells[i], layout_[i].columns);
    }
    rows_.push_back({{text, style}});
  }

  // All, or as many as fit into |lines| with a last one that counts the rest.
  std::vector<TextLine> GetRows(size_t lines) const {
    if (rows_.size() <= lines) return rows_;
    if (lines < 2) return {};
    std::vector<TextLine> rows(
        rows_.begin(), rows_.begin() + static_cast<std::ptrdiff_t>(lines - 1));
    rows.push_back(
        {{"  and " + std::to_string(rows_.size() + 1 - lines) + " more",
          TextStyle::kDim}});
    return rows;
  }
  size_t GetRowCount() const { return rows_.size(); }

 private:
  const std::vector<column_t> layout_;
  size_t text_columns_ = 0;
  std::vector<TextLine> rows_;
};

std::string FormatTotal(uint64_t bytes) {
  return FormatBytes(static_cast<double>(bytes));
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
  std::vector<TextLine> lines = {
      CutLine(StateLine(model, view), view.columns),
      CutLine(FactsLine(model), view.columns),
      TrafficLine(model, view, "down", &rate_t::rx, &traffic_t::rx_bytes),
      TrafficLine(model, view, "up  ", &rate_t::tx, &traffic_t::tx_bytes)};
  if (!view.note.empty()) {
    lines.push_back(
        CutLine({{ToPrintable(view.note), TextStyle::kBad}}, view.columns));
  }
  lines.emplace_back();
  const size_t taken = lines.size() + (view.has_keys ? 1 : 0);
  const size_t room = view.lines == 0      ? SIZE_MAX
                      : view.lines > taken ? view.lines - taken
                                           : 0;
  for (const auto& line : LayOutTables(model, view, room)) {
    lines.push_back(CutLine(line, view.columns));
  }
  if (view.lines == 0) return lines;
  const size_t keys_line = view.lines - (view.has_keys ? 1 : 0);
  lines.resize(keys_line);
  if (view.has_keys) {
    lines.push_back(CutLine(KeysLine(view.sort), view.columns));
  }
  return lines;
}

std::string FormatBytes(double bytes) {
  static constexpr std::array<const char*, 6> kUnits = {"B",  "kB", "MB",
                                                        "GB", "TB", "PB"};
  size_t unit = 0;
  // What would be rounded to 1000 has the next unit.
  for (; bytes >= 999.5 && unit + 1 < kUnits.size(); ++unit) bytes /= 1000;
  const int digits = unit == 0 || bytes >= 99.95 ? 0 : bytes >= 9.995 ? 1 : 2;
  char text[32];
  snprintf(text, sizeof(text), "%.*f %s", digits, bytes, kUnits[unit]);
  return text;
}

}  // namespace vantrel
