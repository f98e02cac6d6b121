#pragma once

namespace vantrel {

// Sets memory aside for the time when there is no more. The allocation that
// finds none then gets it, with an error line, and the process gets a SIGTERM:
// so the loop ends in order, and the rules do not stay behind. Without any
// memory a second time the process aborts. To be called once.
void KeepMemoryReserve();

}  // namespace vantrel
