#pragma once

#include <sys/types.h>

namespace vantrel {

// From now on orphans of our children become our children, so that
// ReapGroup() can wait for them too.
void AdoptOrphans();

// Whether |leader|, a child of ours that leads a process group, has ended. Then
// the rest of its group is killed and everything is waited for: nothing of it
// runs any more when this returns true, and |wait_status| is the leader's as
// waitpid() reports it. Without AdoptOrphans() only children are waited for.
[[nodiscard]] bool ReapGroup(pid_t leader, int* wait_status);

}  // namespace vantrel
