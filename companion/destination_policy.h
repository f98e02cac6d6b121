#pragma once

#include <stdint.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "common/ip_address.h"

namespace vantrel {

// Where a device may send to. Refused unless allowed is what belongs to the
// companion's machine (its loopback, its own addresses, where services listen
// that nobody outside should reach) and what is no single host: unspecified,
// multicast, reserved and broadcast addresses.
class DestinationPolicy {
 public:
  struct rule_t {
    bool allows = false;
    uint32_t network = 0;  // host byte order, as |mask|
    uint32_t mask = 0;
  };
  // "ADDRESS[/BITS]", IPv4. None for anything else, also for an address with
  // bits outside its network.
  static std::optional<rule_t> ParseRule(const std::string& text, bool allows);

  // Whether an IPv4 address is the machine's own; none when that is not known.
  using IsLocal = std::function<std::optional<bool>(const IpAddress&)>;
  // The last of |rules| that matches decides.
  DestinationPolicy(std::vector<rule_t> rules, IsLocal is_local);

  // Only IPv4 is carried.
  bool Allows(const IpAddress& address) const;

  // What is the machine's own has changed.
  void OnChange() { ++edition_; }
  // As long as it stays the same, so does Allows() for any address.
  uint32_t GetEdition() const { return edition_; }

 private:
  const std::vector<rule_t> rules_;
  const IsLocal is_local_;
  uint32_t edition_ = 0;
};

}  // namespace vantrel
