#include "companion/rule_match.h"

#include <algorithm>

namespace vantrel {
namespace {

template <typename Range, typename Value>
bool IsInAny(const std::vector<Range>& ranges, Value value) {
  return std::any_of(ranges.begin(), ranges.end(), [value](const Range& range) {
    return range.first <= value && value <= range.last;
  });
}

bool IsInAnyNetwork(const rule_t& rule, uint32_t address) {
  return std::any_of(rule.destinations.begin(), rule.destinations.end(),
                     [address](const DestinationPolicy::rule_t& network) {
                       return (address & network.mask) == network.network;
                     });
}

// What the destination is, and the network: always known, and looked at first.
bool MatchesRoad(const rule_t& rule, const flow_facts_t& facts) {
  return (!rule.is_metered || *rule.is_metered == facts.is_metered) &&
         (!rule.transport || *rule.transport == facts.transport) &&
         (rule.ports.empty() || IsInAny(rule.ports, facts.port)) &&
         (rule.destinations.empty() || IsInAnyNetwork(rule, facts.address));
}

RuleMatch MatchWord(const std::vector<std::string>& words,
                    const std::optional<std::string_view>& word) {
  if (words.empty()) return RuleMatch::kYes;
  if (!word) return RuleMatch::kUnknown;
  return std::find(words.begin(), words.end(), *word) == words.end()
             ? RuleMatch::kNo
             : RuleMatch::kYes;
}

bool MatchesUid(const rule_t& rule, const flow_facts_t& facts) {
  return facts.uid && IsInAny(rule.uids, *facts.uid);
}

bool MatchesPackage(const rule_t& rule, const flow_facts_t& facts) {
  return facts.package && !facts.package->empty() &&
         std::any_of(rule.packages.begin(), rule.packages.end(),
                     [&facts](const std::string& pattern) {
                       return MatchesPattern(pattern, *facts.package);
                     });
}

RuleMatch MatchOwner(const rule_t& rule, const flow_facts_t& facts) {
  const bool has_names = !rule.uids.empty() || !rule.packages.empty();
  if (!has_names && !rule.is_for_unknown_owner) return RuleMatch::kYes;
  if (!facts.has_owner) {
    return rule.is_for_unknown_owner ? RuleMatch::kYes : RuleMatch::kNo;
  }
  if (MatchesUid(rule, facts) || MatchesPackage(rule, facts)) {
    return RuleMatch::kYes;
  }
  const bool is_open = (!facts.uid && !rule.uids.empty()) ||
                       (!facts.package && !rule.packages.empty());
  return is_open ? RuleMatch::kUnknown : RuleMatch::kNo;
}

}  // namespace

bool MatchesPattern(std::string_view pattern, std::string_view name) {
  size_t p = 0;
  size_t n = 0;
  // Behind the last star, and where the name goes on that it does not cover.
  size_t behind_star = std::string_view::npos;
  size_t uncovered = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      behind_star = ++p;
      uncovered = n;
    } else if (p < pattern.size() && pattern[p] == name[n]) {
      ++p;
      ++n;
    } else if (behind_star != std::string_view::npos) {
      p = behind_star;
      n = ++uncovered;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

RuleMatch MatchRule(const rule_t& rule, const flow_facts_t& facts) {
  if (!MatchesRoad(rule, facts)) return RuleMatch::kNo;
  const RuleMatch parts[] = {MatchOwner(rule, facts),
                             MatchWord(rule.devices, facts.device),
                             MatchWord(rule.links, facts.link)};
  RuleMatch match = RuleMatch::kYes;
  for (const RuleMatch part : parts) {
    if (part == RuleMatch::kNo) return RuleMatch::kNo;
    if (part == RuleMatch::kUnknown) match = RuleMatch::kUnknown;
  }
  return match;
}

const rule_t* FindRule(const rules_t& rules, const flow_facts_t& facts,
                       bool* is_certain) {
  for (const rule_t& rule : rules.rules) {
    const RuleMatch match = MatchRule(rule, facts);
    if (match == RuleMatch::kNo) continue;
    *is_certain = match == RuleMatch::kYes;
    return &rule;
  }
  *is_certain = true;
  return nullptr;
}

}  // namespace vantrel
