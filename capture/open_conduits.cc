#include "capture/open_conduits.h"

#include "capture/tcp_conduit.h"

namespace vantrel {

void OpenConduits::ResetAll() {
  // Each removes itself as it goes.
  while (!conduits_.empty()) (*conduits_.begin())->Reset();
}

}  // namespace vantrel
