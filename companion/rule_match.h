#pragma once

#include <stdint.h>

#include <optional>
#include <string_view>

#include "companion/rules.h"

namespace vantrel {

// What is known of a stream or of a flow of datagrams.
struct flow_facts_t {
  // Whether the device says whose it is. Without, the next two say nothing.
  bool has_owner = false;
  std::optional<uint32_t> uid;              // none: not known
  std::optional<std::string_view> package;  // none: not known; empty: has none
  std::optional<std::string_view> device;  // as in link_peer_t; none: not known
  std::optional<std::string_view> link;
  uint32_t address = 0;  // of the remote, host byte order
  uint16_t port = 0;
  Transport transport = Transport::kTcp;
  bool is_metered = false;
};

enum class RuleMatch { kNo, kYes, kUnknown };

// kUnknown: it depends on what is not known.
RuleMatch MatchRule(const rule_t& rule, const flow_facts_t& facts);

// Whether |name| is |pattern|, in which each "*" stands for any characters, or
// none.
bool MatchesPattern(std::string_view pattern, std::string_view name);

// The first of |rules| that matches, or may match: |is_certain| tells which.
// Null: none does.
const rule_t* FindRule(const rules_t& rules, const flow_facts_t& facts,
                       bool* is_certain);

}  // namespace vantrel
