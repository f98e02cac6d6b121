// What a rules file says, in words for people.
#pragma once

#include <ostream>
#include <string>

#include "companion/rule_match.h"
#include "companion/rules.h"

namespace vantrel {

// How lines name it: rule "mail", or by number and line where it has no name.
std::string DescribeRuleName(const rule_t& rule);

// One line for each rule: conditions, and what follows.
void PrintRules(const rules_t& rules, std::ostream& out);

// Which rules match a stream with these |facts|, and which a datagram, which
// has no owner: a line for each that may, up to the first that surely does.
void ExplainRules(const rules_t& rules, const flow_facts_t& facts,
                  std::ostream& out);

}  // namespace vantrel
