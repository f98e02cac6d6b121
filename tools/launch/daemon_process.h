#pragma once

#include <sys/types.h>

#include <string>

#include "common/unique_fd.h"

namespace vantrel {

// The running daemon, our child. It leads a process group that the commands it
// runs belong to: so a terminal's Ctrl-C reaches it once, from us, and not in
// the middle of what they are doing, and none of them outlives it.
class DaemonProcess {
 public:
  struct start_t {
    std::string program;   // searched as a shell does
    std::string protocol;  // its one argument
    UniqueFd link;         // becomes standard input
    UniqueFd status;       // becomes standard output
    // It gets a SIGTERM when we die. Needed where our end does not end its
    // link. A daemon that is just starting then ends with its rules installed.
    bool is_ended_with_us = false;
  };

  // Open files are limited only by our own hard limit, and no signal is blocked
  // or ignored. Throws std::system_error when it cannot be started.
  explicit DaemonProcess(start_t start);
  DaemonProcess(const DaemonProcess&) = delete;
  DaemonProcess& operator=(const DaemonProcess&) = delete;

  bool IsRunning() const { return pid_ >= 0; }
  pid_t GetPid() const { return pid_; }  // -1 once it has ended
  // Does nothing once it has ended.
  void Signal(int signal) const;
  // Ends it and its commands without asking.
  void Kill() const;
  // True when it has ended, at this call or before; then its commands have,
  // too. Never waits for it.
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
