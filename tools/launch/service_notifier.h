#pragma once

#include <string>

#include "tools/unique_fd.h"

namespace vantrel {

// Tells the service manager how we are, with datagrams to the socket that the
// environment variable NOTIFY_SOCKET names. Does nothing without one.
class ServiceNotifier {
 public:
  ServiceNotifier();

  void Ready(const std::string& status) { Send("READY=1\nSTATUS=" + status); }
  void Status(const std::string& status) { Send("STATUS=" + status); }
  void Stopping() { Send("STOPPING=1\nSTATUS=stopping"); }

 private:
  // Whether anybody listens is not our concern: a failure is ignored.
  void Send(const std::string& message);

  UniqueFd socket_;
};

}  // namespace vantrel
