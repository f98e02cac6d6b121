// For unit tests that draw random cases.
#pragma once

#include <stdint.h>
#include <stdlib.h>

#include <random>

namespace vantrel {

// The seed of a test's first case, which it prints when a case fails: a new one
// each time, or the one in the environment, to see that case again.
inline uint32_t FirstSeed() {
  const char* const given = getenv("VANTREL_SEED");
  return given != nullptr ? static_cast<uint32_t>(strtoul(given, nullptr, 10))
                          : std::random_device()();
}

}  // namespace vantrel
