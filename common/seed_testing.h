// For unit tests that draw random cases.
#pragma once

#include <stdlib.h>

#include <random>

namespace vantrel {

// The seed of a test's first case, which it prints when a case fails: a new one
// each time, or the one in the environment, to see that case again.
inline unsigned int FirstSeed() {
  const char* const given = getenv("VANTREL_SEED");
  return given != nullptr
             ? static_cast<unsigned int>(strtoul(given, nullptr, 10))
             : std::random_device()();
}

}  // namespace vantrel
