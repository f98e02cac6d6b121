#pragma once

#include <string>

#include "tools/ctl/devices_model.h"
#include "tools/ctl/top_model.h"

namespace vantrel {

// What |model| has, as an object on one line without its newline. Rates are
// whole bytes per second. |note| is what else is to be said, or empty.
std::string TopToJson(const TopModel& model, TopSort sort,
                      const std::string& note);
std::string TopToJson(const DevicesModel& model, TopSort sort,
                      const std::string& note);

}  // namespace vantrel
