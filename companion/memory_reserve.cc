#include "companion/memory_reserve.h"

#include <stddef.h>
#include <stdlib.h>

#include <new>

namespace vantrel {
namespace {

// Never touched, so it takes addresses only.
constexpr size_t kReserveBytes = 512 * 1024;

void* reserve = nullptr;

[[noreturn]] void ReleaseReserve() {
  free(reserve);
  reserve = nullptr;
  throw std::bad_alloc();
}

}  // namespace

void KeepMemoryReserve() {
  if (reserve == nullptr) reserve = malloc(kReserveBytes);
  std::set_new_handler(ReleaseReserve);
}

}  // namespace vantrel
