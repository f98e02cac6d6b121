#pragma once

namespace vantrel {

// Of a flow that waits for the link, beside other flows.
enum class Priority { kHigh, kNormal, kLow };

}  // namespace vantrel
