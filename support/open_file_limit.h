#pragma once

#include <stddef.h>

namespace vantrel {

// Lets this process, and what it starts, open as many descriptors as the system
// allows it: each stream and each flow of a link is one. What it may open then;
// may be called between fork() and exec().
size_t RaiseOpenFileLimit();

}  // namespace vantrel
