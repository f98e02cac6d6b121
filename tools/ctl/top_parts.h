// What the screens of vantrelctl top are made of: lines of text, tables, and
// what stands above and below these.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/ctl/top_rates.h"

namespace vantrel {

// How a piece of text is shown where there are colours.
enum class TextStyle { kPlain, kTitle, kGood, kBad, kHeading, kDim };

struct text_span_t {
  std::string text;  // printable ASCII, or the blocks of a graph
  TextStyle style = TextStyle::kPlain;
};

using TextLine = std::vector<text_span_t>;

// How much of a companion's devices is shown.
enum class TopDepth { kDevices, kApplications, kStreams };

struct top_view_t {
  size_t columns = 100;
  size_t lines = 0;  // 0: as many as there are
  TopSort sort = TopSort::kDown;
  TopDepth depth = TopDepth::kStreams;
  bool is_paused = false;
  bool has_keys = false;    // somebody can press one
  bool has_blocks = false;  // the terminal shows U+2581 to U+2588
  std::string note;         // what else is to be said; empty: nothing
};

// What stands above the tables.
struct top_head_t {
  std::string state;
  bool is_well = false;
  std::string more;   // behind the state
  std::string facts;  // a line of its own
  // No traffic is shown where |has_link| is false, and where there is no
  // |total| that nobody knows it.
  bool has_link = false;
  std::optional<traffic_t> total;
  rate_t rate;
  const std::deque<rate_t>& history;  // the latest last
  bool can_fold = false;              // there is a key for it
};

// A table with one column of text that takes what the others leave.
class Table {
 public:
  struct column_t {
    const char* title;
    size_t columns;  // 0: what is left; text, the others are numbers
    bool is_shown;
  };
  Table(std::vector<column_t> layout, size_t columns);

  void AddRow(const std::vector<std::string>& cells,
              TextStyle style = TextStyle::kPlain);
  // All, or as many as fit into |lines| with a last one that counts the rest.
  std::vector<TextLine> GetRows(size_t lines) const;
  size_t GetRowCount() const { return rows_.size(); }

 private:
  const std::vector<column_t> layout_;
  size_t text_columns_ = 0;
  std::vector<TextLine> rows_;
};

// A whole screen: at most |view.lines| lines of at most |view.columns| columns.
// |lay_out_tables| makes what comes below the head, in as many lines as it is
// given.
std::vector<TextLine> LayOutScreen(
    const top_head_t& head, const top_view_t& view,
    const std::function<std::vector<TextLine>(size_t room)>& lay_out_tables);

// Below these widths parts are left out.
constexpr size_t kColumnsForAll = 120;
constexpr size_t kColumnsForTotals = 70;
constexpr size_t kColumnsForIds = 56;

constexpr size_t kRateColumns = 11;   // "1.23 MB/s" and two blanks
constexpr size_t kBytesColumns = 10;  // "1.23 MB" and blanks
constexpr size_t kIdColumns = 10;     // the longest UID

// Cut where it is too long, filled with blanks where it is too short.
std::string Fit(const std::string& text, size_t columns);
// Three digits and a decimal unit: "1.23 MB".
std::string FormatBytes(double bytes);
std::string FormatTotal(uint64_t bytes);
std::string FormatRate(double rate);
// "1:02:03"
std::string FormatUptime(uint64_t ms);
// "2 starts"
std::string Count(uint64_t count, const char* noun);

}  // namespace vantrel
