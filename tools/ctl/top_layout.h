// What vantrelctl top shows, as lines of text for a terminal of any size.
#pragma once

#include <vector>

#include "tools/ctl/devices_model.h"
#include "tools/ctl/top_model.h"
#include "tools/ctl/top_parts.h"

namespace vantrel {

// At most |view.lines| lines of at most |view.columns| columns: a launcher's
// applications and streams, or a companion's devices with theirs.
std::vector<TextLine> LayOutTop(const TopModel& model, const top_view_t& view);
std::vector<TextLine> LayOutTop(const DevicesModel& model,
                                const top_view_t& view);

}  // namespace vantrel
