#include "capture/original_destination_testing.h"

#include <errno.h>

#include "capture/original_destination.h"

namespace vantrel {
namespace {

const HostAndPort* original_destination = nullptr;

}  // namespace

bool GetOriginalDestination(int, HostAndPort* destination) {
  if (original_destination == nullptr) {
    errno = ENOENT;
    return false;
  }
  *destination = *original_destination;
  return true;
}

void SetOriginalDestination(const HostAndPort* destination) {
  original_destination = destination;
}

}  // namespace vantrel
