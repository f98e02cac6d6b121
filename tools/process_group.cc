#include "tools/process_group.h"

#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

namespace vantrel {

void AdoptOrphans() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

bool ReapGroup(pid_t leader, int* wait_status) {
  // Not taken yet: while the leader is a zombie, its number means this group
  // and no other.
  siginfo_t info = {};
  if (waitid(P_PID, static_cast<id_t>(leader), &info,
             WEXITED | WNOHANG | WNOWAIT) != 0 ||
      info.si_pid == 0) {
    return false;
  }
  kill(-leader, SIGKILL);
  while (waitpid(leader, wait_status, 0) < 0 && errno == EINTR) {
  }
  while (waitpid(-leader, nullptr, 0) > 0 || errno == EINTR) {
  }
  return true;
}

}  // namespace vantrel
