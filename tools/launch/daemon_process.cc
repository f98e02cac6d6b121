#include "tools/launch/daemon_process.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <utility>

#include "support/open_file_limit.h"
#include "support/system_failure.h"
#include "tools/process_group.h"

namespace vantrel {
namespace {

void ResetSignals() {
  for (const int number : {SIGINT, SIGTERM, SIGCHLD, SIGPIPE}) {
    signal(number, SIG_DFL);
  }
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
}

// In the child. A descriptor that stands in another's place is no longer
// closed on exec.
void MoveTo(int fd, int place) {
  if (fd == place) {
    fcntl(fd, F_SETFD, 0);
  } else {
    dup2(fd, place);
  }
}

[[noreturn]] void RunDaemon(const DaemonProcess::start_t& start, int report) {
  ResetSignals();
  setpgid(0, 0);
  if (start.is_ended_with_us) prctl(PR_SET_PDEATHSIG, SIGTERM);
  static_cast<void>(RaiseOpenFileLimit());
  MoveTo(start.link.Get(), STDIN_FILENO);
  MoveTo(start.status.Get(), STDOUT_FILENO);
  // What we have inherited from others is not for the daemon.
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
  execlp(start.program.c_str(), start.program.c_str(), start.protocol.c_str(),
         static_cast<char*>(nullptr));
  const int error = errno;
  static_cast<void>(!write(report, &error, sizeof(error)));
  _exit(127);
}

// Above the standard ones, so that putting one in its place in the child never
// closes another.
UniqueFd MoveAboveStandard(UniqueFd fd) {
  if (fd.Get() > STDERR_FILENO) return fd;
  UniqueFd moved(fcntl(fd.Get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  if (moved.Get() < 0) throw SystemFailure("no descriptor");
  return moved;
}

}  // namespace

DaemonProcess::DaemonProcess(start_t start) {
  start.link = MoveAboveStandard(std::move(start.link));
  start.status = MoveAboveStandard(std::move(start.status));
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw SystemFailure("no pipe");
  const UniqueFd report_out(ends[0]);
  UniqueFd report_in(ends[1]);
  AdoptOrphans();
  pid_ = fork();
  if (pid_ < 0) throw SystemFailure("no new process");
  if (pid_ == 0) RunDaemon(start, report_in.Get());
  report_in.Reset();
  // Ends without a byte when the program was started.
  int error;
  ssize_t count;
  do {
    count = read(report_out.Get(), &error, sizeof(error));
  } while (count < 0 && errno == EINTR);
  if (count == sizeof(error)) {
    while (waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    errno = error;
    throw SystemFailure("cannot start " + start.program);
  }
}

void DaemonProcess::Signal(int signal) const {
  if (IsRunning()) kill(pid_, signal);
}

void DaemonProcess::Kill() const {
  if (IsRunning()) kill(-pid_, SIGKILL);
}

bool DaemonProcess::Reap() {
  if (IsRunning() && ReapGroup(pid_, &wait_status_)) pid_ = -1;
  return !IsRunning();
}

std::string FindDaemon() {
  char self[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof(self));
  if (length > 0) {
    std::string beside(self, static_cast<size_t>(length));
    beside.replace(beside.rfind('/') + 1, std::string::npos, "vantrel");
    if (access(beside.c_str(), X_OK) == 0) return beside;
  }
  return "vantrel";
}

}  // namespace vantrel
