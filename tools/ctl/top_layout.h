// What vantrelctl top shows, as lines of text for a terminal of any size.
#pragma once

#include <string>
#include <vector>

#include "tools/ctl/top_model.h"

namespace vantrel {

// How a piece of text is shown where there are colours.
enum class TextStyle { kPlain, kTitle, kGood, kBad, kHeading, kDim };

struct text_span_t {
  std::string text;  // printable ASCII, or the blocks of a graph
  TextStyle style = TextStyle::kPlain;
};

using TextLine = std::vector<text_span_t>;

struct top_view_t {
  size_t columns = 100;
  size_t lines = 0;  // 0: as many as there are
  TopModel::Sort sort = TopModel::Sort::kDown;
  bool is_paused = false;
  bool has_keys = false;    // somebody can press one
  bool has_blocks = false;  // the terminal shows U+2581 to U+2588
  std::string note;         // what else is to be said; empty: nothing
};

// At most |view.lines| lines of at most |view.columns| columns.
std::vector<TextLine> LayOutTop(const TopModel& model, const top_view_t& view);

// Three digits and a decimal unit: "1.23 MB".
std::string FormatBytes(double bytes);

}  // namespace vantrel
