#pragma once

namespace vantrel {

// Sets memory aside for the time when there is no more. An allocation that
// finds none fails with std::bad_alloc all the same; to end what has asked for
// it, and to say so, there is the reserve then. To be called at the start, and
// from time to time to set it aside again.
void KeepMemoryReserve();

}  // namespace vantrel
