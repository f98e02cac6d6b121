#pragma once

namespace vantrel {

// Of a program whose command line is wrong, or leaves open what it must not.
constexpr int kUsageStatus = 2;

}  // namespace vantrel
