#pragma once

#include <initializer_list>

namespace vantrel {

// Gives up all capabilities but |kept| (CAP_... of linux/capability.h), for
// this thread and for every program that it runs from now on. Where the caller
// may not narrow what programs of root can get, only that part is left out.
// False, with the reason in errno, when it still has one that is not in |kept|.
[[nodiscard]] bool KeepOnlyCapabilities(std::initializer_list<int> kept);

}  // namespace vantrel
