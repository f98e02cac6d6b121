#pragma once

#include <sys/types.h>

#include <string>

#include "tools/unique_fd.h"

namespace vantrel {

// The running daemon, our child. It gets a process group of its own, so that a
// terminal's Ctrl-C reaches it once, from us, and not in the middle of what
// the commands it runs are doing; and a SIGTERM should we die.
class DaemonProcess {
 public:
  // Starts |program|, searched as a shell does, with |protocol| as its one
  // argument, |link| as standard input and |status| as standard output; takes
  // both. Open files are limited only by our own hard limit, and no signal is
  // blocked or ignored. Throws std::system_error when it cannot be started.
  DaemonProcess(const std::string& program, const std::string& protocol,
                UniqueFd link, UniqueFd status);
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  bool IsRunning() const { return pid_ >= 0; }
  // Does nothing once it has ended.
  void Signal(int signal) const;
  // True when it has ended, at this call or before. Never waits.
  bool Reap();
  // As waitpid() reports it; meaningful once it has ended.
  int GetWaitStatus() const { return wait_status_; }

 private:
  pid_t pid_;  // -1 once reaped
  int wait_status_ = 0;
};

// The daemon beside our own program, or the one in PATH.
std::string FindDaemon();

}  // namespace vantrel
