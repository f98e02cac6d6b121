#pragma once

#include <string>

#include "tools/launch/status_reader.h"
#include "tools/launch_state.h"
#include "tools/package_names.h"

namespace vantrel {

// Adds what |record| reports to |state|: each report has only what is new, and
// the daemon forgets it.
void CountRecord(const status_record_t& record, const PackageNames& names,
                 launch_state_t* state);

// The totals of |state| in the text format that Prometheus collects.
std::string FormatMetrics(const launch_state_t& state,
                          const PackageNames& names);

}  // namespace vantrel
