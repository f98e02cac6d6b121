#include "tools/ctl/top_parts.h"

#include <stdio.h>

#include <algorithm>
#include <array>
#include <utility>

#include "common/printable.h"

namespace vantrel {
namespace {

std::string PadLeft(const std::string& text, size_t columns) {
  return std::string(columns - std::min(columns, text.size()), ' ') + text;
}

TextLine CutLine(const TextLine& line, size_t columns) {
  TextLine cut;
  for (const text_span_t& span : line) {
    cut.push_back({span.text.substr(0, columns), span.style});
    columns -= cut.back().text.size();
  }
  return cut;
}

TextLine StateLine(const top_head_t& head, const top_view_t& view) {
  TextLine line = {
      {"vantrel ", TextStyle::kTitle},
      {head.state, head.is_well ? TextStyle::kGood : TextStyle::kBad}};
  if (view.is_paused) line.push_back({" (paused)", TextStyle::kBad});
  line.push_back({ToPrintable(head.more)});
  return line;
}

// The latest rates, one a column, the last one on the right.
std::string MakeGraph(const std::deque<rate_t>& history,
                      double rate_t::*direction, size_t columns,
                      bool has_blocks) {
  static constexpr std::array<const char*, 9> kBlocks = {
      " ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
  static constexpr std::array<const char*, 9> kAscii = {" ", ".", ".", ":", ":",
                                                        "+", "+", "#", "#"};
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

TextLine TrafficLine(const top_head_t& head, const top_view_t& view,
                     const char* name, double rate_t::*rate,
                     uint64_t traffic_t::*total) {
  if (!head.has_link) return {};
  if (!head.total) {
    return {{std::string(name) + " unknown, for the link has no relay"}};
  }
  std::string text = name + PadLeft(FormatRate(head.rate.*rate), kRateColumns);
  if (view.columns >= kColumnsForIds) {
    text += PadLeft(FormatTotal((*head.total).*total), kBytesColumns);
    text += " total";
  }
  text += "  ";
  if (text.size() > view.columns) return CutLine({{text}}, view.columns);
  return {{text},
          {MakeGraph(head.history, rate, view.columns - text.size(),
                     view.has_blocks),
           TextStyle::kGood}};
}

TextLine KeysLine(const top_head_t& head, TopSort sort) {
  TextLine line = {{"q", TextStyle::kTitle},
                   {" quit  "},
                   {"p", TextStyle::kTitle},
                   {" pause  "}};
  if (head.can_fold) {
    line.push_back({"f", TextStyle::kTitle});
    line.push_back({" fold  "});
  }
  line.push_back({"sort by:"});
  const struct {
    TopSort sort;
    const char* key;
    const char* rest;
  } sorts[] = {{TopSort::kDown, "d", "own"},
               {TopSort::kUp, "u", "p"},
               {TopSort::kTotal, "t", "otal"},
               {TopSort::kName, "n", "ame"}};
  for (const auto& s : sorts) {
    const auto style = s.sort == sort ? TextStyle::kHeading : TextStyle::kPlain;
    line.push_back({" "});
    line.push_back({s.key, TextStyle::kTitle});
    line.push_back({s.rest, style});
  }
  return line;
}

}  // namespace

Table::Table(std::vector<column_t> layout, size_t columns)
    : layout_(std::move(layout)) {
  size_t taken = 0;
  for (const column_t& c : layout_) taken += c.is_shown ? c.columns : 0;
  text_columns_ = columns - std::min(columns, taken);
  std::vector<std::string> titles;
  for (const column_t& c : layout_) titles.emplace_back(c.title);
  AddRow(titles, TextStyle::kHeading);
}

void Table::AddRow(const std::vector<std::string>& cells, TextStyle style) {
  std::string text;
  for (size_t i = 0; i < cells.size(); ++i) {
    if (!layout_[i].is_shown) continue;
    text += layout_[i].columns == 0
                ? "  " + Fit(cells[i],
                             text_columns_ - std::min<size_t>(2, text_columns_))
                : PadLeft(cells[i], layout_[i].columns);
  }
  rows_.push_back({{text, style}});
}

std::vector<TextLine> Table::GetRows(size_t lines) const {
  if (rows_.size() <= lines) return rows_;
  if (lines < 2) return {};
  std::vector<TextLine> rows(
      rows_.begin(), rows_.begin() + static_cast<std::ptrdiff_t>(lines - 1));
  rows.push_back(
      {{"  and " + std::to_string(rows_.size() + 1 - lines) + " more",
        TextStyle::kDim}});
  return rows;
}

std::vector<TextLine> LayOutScreen(
    const top_head_t& head, const top_view_t& view,
    const std::function<std::vector<TextLine>(size_t room)>& lay_out_tables) {
  std::vector<TextLine> lines = {
      CutLine(StateLine(head, view), view.columns),
      CutLine({{head.facts}}, view.columns),
      TrafficLine(head, view, "down", &rate_t::rx, &traffic_t::rx_bytes),
      TrafficLine(head, view, "up  ", &rate_t::tx, &traffic_t::tx_bytes)};
  if (!view.note.empty()) {
    lines.push_back(
        CutLine({{ToPrintable(view.note), TextStyle::kBad}}, view.columns));
  }
  lines.emplace_back();
  const size_t taken = lines.size() + (view.has_keys ? 1 : 0);
  const size_t room = view.lines == 0      ? SIZE_MAX
                      : view.lines > taken ? view.lines - taken
                                           : 0;
  for (const auto& line : lay_out_tables(room)) {
    lines.push_back(CutLine(line, view.columns));
  }
  if (view.lines == 0) return lines;
  const size_t keys_line = view.lines - (view.has_keys ? 1 : 0);
  lines.resize(keys_line);
  if (view.has_keys) {
    lines.push_back(CutLine(KeysLine(head, view.sort), view.columns));
  }
  return lines;
}

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

std::string FormatTotal(uint64_t bytes) {
  return FormatBytes(static_cast<double>(bytes));
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
