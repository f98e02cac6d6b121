#pragma once

#include <stddef.h>

#include <vector>

#include "companion/device_link.h"
#include "support/companion_state.h"
#include "support/steady_time.h"

namespace vantrel {

// What a state has at most, of all devices together: to make it may take no
// longer than other links can wait, and a reader has to take it in a second.
// Where there is more, each device has as many as any other that has more, and
// those that have moved most are told.
constexpr size_t kMaxToldDevices = 256;
constexpr size_t kMaxToldApplications = 512;
constexpr size_t kMaxToldStreams = 512;

// What |links| have at the moment |now|: devices, applications, streams, and
// how many of these are left out.
companion_state_t TellState(const std::vector<const DeviceLink*>& links,
                            SteadyTime now);

// How many each gets of |room| who wants so many as |wanted| says: all of it,
// or as many as any other that gets less than it wants.
std::vector<size_t> ShareOut(const std::vector<size_t>& wanted, size_t room);

}  // namespace vantrel
