#include "daemon/memory_reserve.h"

#include <signal.h>
#include <stddef.h>
#include <stdlib.h>

#include <new>

#include "common/log.h"

namespace vantrel {
namespace {

// The rest of one pass of the loop, and the shells that remove the rules. Never
// touched, so it takes addresses only.
constexpr size_t kReserveBytes = 4 * 1024 * 1024;

void* reserve = nullptr;

void ReleaseReserve() {
  std::set_new_handler(nullptr);
  free(reserve);
  LOGE("Out of memory; ending.");
  raise(SIGTERM);
}

}  // namespace

void KeepMemoryReserve() {
  reserve = malloc(kReserveBytes);
  std::set_new_handler(ReleaseReserve);
}

}  // namespace vantrel
