#pragma once

#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "control/control_packets.h"

namespace vantrel {

// The way to a daemon's control port on this machine.
class ControlPort {
 public:
  ControlPort();  // throws std::system_error

  // Throws std::system_error. The port never answers.
  void Send(const std::string& packet);

  // Whether the last packet came back because nothing listens. On the loopback
  // this is known as soon as it was sent.
  bool IsRefused() const;

 private:
  UniqueFd socket_;
};

// The daemon's process as it numbers itself: the one that listens on the
// control port of our network. None when nobody does, or when we may not look.
std::optional<int> FindControlPortOwner();

}  // namespace vantrel
