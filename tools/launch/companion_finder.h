#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/bluetooth_address.h"
#include "support/steady_time.h"
#include "tools/launch/event_loop.h"

namespace vantrel {

// Where the companion's service is to be connected.
struct found_companion_t {
  BluetoothAddress address = {};
  // Of this machine, the one that was paired; none: whichever is on.
  std::optional<BluetoothAddress> adapter;
  std::string name;  // empty when nobody was asked for it
  int channel = 0;   // of RFCOMM
};

// There is more than one companion, and nobody to choose.
class ChoiceNeeded : public std::runtime_error {
 public:
  explicit ChoiceNeeded(std::vector<std::string> choices)
      : std::runtime_error(
            "several paired machines offer the network; choose a LINK:"),
        choices_(std::move(choices)) {}

  // A link and the machine's name in each.
  const std::vector<std::string>& GetChoices() const { return choices_; }

 private:
  std::vector<std::string> choices_;
};

// The companion on the machine |address|; without that, on the paired machine
// that offers the service, which BlueZ is asked for. Throws ChoiceNeeded,
// Interrupted, or std::runtime_error with what is missing and what to do, in
// one line. Gives up when |end| has passed.
found_companion_t FindCompanion(const std::optional<BluetoothAddress>& address,
                                EventLoop* loop, SteadyTime end);

}  // namespace vantrel
