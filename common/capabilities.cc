#include "common/capabilities.h"

#include <linux/capability.h>
#include <stdint.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantrel {
namespace {

// The kernel's record has two of these, 32 capabilities each.
using CapabilitySets = __user_cap_data_struct[_LINUX_CAPABILITY_U32S_3];

// What is inherited by a program that root runs. The numbers end where the
// kernel knows no more.
void NarrowBoundingSet(uint64_t mask) {
  for (unsigned long capability = 0; capability < 64; ++capability) {
    if (prctl(PR_CAPBSET_READ, capability, 0, 0, 0) == -1) return;
    if ((mask >> capability & 1) == 0) {
      prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);
    }
  }
}

}  // namespace

bool KeepOnlyCapabilities(std::initializer_list<int> kept) {
  uint64_t mask = 0;
  for (const int capability : kept) mask |= uint64_t{1} << capability;
  NarrowBoundingSet(mask);

  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  CapabilitySets sets = {};
  if (syscall(SYS_capget, &header, sets) == -1) return false;
  bool is_more = false;
  for (auto& set : sets) {
    const auto part = static_cast<uint32_t>(mask);
    mask >>= 32;
    is_more |= ((set.permitted | set.inheritable) & ~part) != 0;
    set.effective &= part;
    set.permitted &= part;
    set.inheritable &= part;
  }
  // A system that lets nobody call this has often taken them away already.
  return !is_more || syscall(SYS_capset, &header, sets) == 0;
}

}  // namespace vantrel
