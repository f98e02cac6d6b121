// For micro benchmarks: a socket that takes everything at once and keeps
// nothing, so that what is measured is the way there.
#pragma once

#include <fcntl.h>

#include "reactor/reactor_testing.h"

namespace vantrel {

class NullDevice : public Socket {
 public:
  NullDevice() : Socket(open("/dev/null", O_WRONLY | O_CLOEXEC)) {}
};

}  // namespace vantrel
