// What a rules file says; vantrel-rules(5) explains it to its writer.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

#include "companion/destination_policy.h"
#include "companion/priority.h"

namespace vantrel {

enum class Transport { kTcp, kUdp };

// Who has a limit or a quota for himself: nobody, so that all share it, or each
// device, or each application of each device.
enum class Scope { kAll, kDevice, kApplication };

// Of the local time of the companion's machine.
enum class Period { kDay, kMonth };

struct uid_range_t {
  uint32_t first = 0;
  uint32_t last = 0;  // included
};

struct port_range_t {
  uint16_t first = 0;
  uint16_t last = 0;  // included
};

struct limit_t {
  std::string name;   // for messages
  uint64_t down = 0;  // bytes per second to the device; 0: no limit
  uint64_t up = 0;    // the same from the device
  Scope scope = Scope::kAll;
};

struct quota_t {
  std::string name;  // by which its counts are found again after a restart
  uint64_t bytes = 0;
  Period period = Period::kDay;
  Scope scope = Scope::kAll;
};

// Conditions, which must all hold, and what follows then. A list holds when one
// of its members does, or when it is empty.
struct rule_t {
  std::string name;   // may be empty
  size_t number = 0;  // from 1
  uint32_t line = 0;

  // These three are one condition, on the owner.
  std::vector<uid_range_t> uids;
  std::vector<std::string> packages;  // "*" stands for any characters
  bool is_for_unknown_owner = false;

  std::vector<std::string> devices;                     // link_peer_t::device
  std::vector<std::string> links;                       // link_peer_t::link
  std::vector<DestinationPolicy::rule_t> destinations;  // |allows| says nothing
  std::vector<port_range_t> ports;
  std::optional<Transport> transport;
  std::optional<bool> is_metered;

  bool denies = false;
  Priority priority = Priority::kNormal;
  std::vector<size_t> limits;  // indices into rules_t
  std::vector<size_t> quotas;
};

// In the order of the file: the first that matches decides.
struct rules_t {
  std::vector<rule_t> rules;
  std::vector<limit_t> limits;
  std::vector<quota_t> quotas;
};

}  // namespace vantrel
