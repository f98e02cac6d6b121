#include "companion/rules_text.h"

#include <arpa/inet.h>

#include <vector>

#include "common/ip_address.h"
#include "common/printable.h"

namespace vantrel {
namespace {

// "WHAT A or B or C"; empty where there is nothing.
class Alternatives {
 public:
  explicit Alternatives(const char* what) : text_(what) {}
  void Add(const std::string& alternative) {
    text_ += (count_++ == 0 ? " " : " or ") + alternative;
  }
  std::string Get() const { return count_ == 0 ? "" : text_; }

 private:
  std::string text_;
  size_t count_ = 0;
};

template <typename Range>
std::string DescribeRange(const Range& range) {
  const std::string first = std::to_string(range.first);
  return range.first == range.last ? first
                                   : first + "-" + std::to_string(range.last);
}

std::string DescribeOwners(const rule_t& rule) {
  Alternatives owners("application");
  for (const std::string& package : rule.packages) owners.Add(package);
  for (const uid_range_t& uids : rule.uids) {
    owners.Add("UID " + DescribeRange(uids));
  }
  if (rule.is_for_unknown_owner) owners.Add("unknown");
  return owners.Get();
}

std::string DescribeNetwork(const DestinationPolicy::rule_t& network) {
  return IpAddress::FromIPv4NetworkBytes(htonl(network.network)).ToString() +
         "/" + std::to_string(__builtin_popcount(network.mask));
}

std::string DescribeWords(const char* what,
                          const std::vector<std::string>& words) {
  Alternatives all(what);
  for (const std::string& word : words) all.Add(word);
  return all.Get();
}

std::string DescribeConditions(const rule_t& rule) {
  Alternatives destinations("destination");
  for (const auto& network : rule.destinations) {
    destinations.Add(DescribeNetwork(network));
  }
  Alternatives ports("port");
  for (const port_range_t& range : rule.ports) ports.Add(DescribeRange(range));
  const std::string parts[] = {DescribeOwners(rule),
                               DescribeWords("device", rule.devices),
                               DescribeWords("link", rule.links),
                               destinations.Get(),
                               ports.Get(),
                               !rule.transport                      ? ""
                               : *rule.transport == Transport::kTcp ? "TCP"
                                                                    : "UDP",
                               !rule.is_metered   ? ""
                               : *rule.is_metered ? "metered"
                                                  : "not metered"};
  std::string text;
  for (const std::string& part : parts) {
    if (!part.empty()) text += (text.empty() ? "" : ", ") + part;
  }
  return text.empty() ? "everything" : text;
}

const char* DescribeScope(Scope scope) {
  switch (scope) {
    case Scope::kAll:
      return "";
    case Scope::kDevice:
      return " each device";
    case Scope::kApplication:
      return " each application";
  }
  return "";
}

std::string DescribeLimit(const limit_t& limit) {
  std::string text = ", limit";
  if (limit.down > 0) {
    text += " down " + std::to_string(limit.down) + " bytes/s";
  }
  if (limit.up > 0) text += " up " + std::to_string(limit.up) + " bytes/s";
  return text + DescribeScope(limit.scope);
}

std::string DescribeQuota(const quota_t& quota) {
  return ", quota \"" + quota.name + "\" " + std::to_string(quota.bytes) +
         " bytes per " + (quota.period == Period::kDay ? "day" : "month") +
         DescribeScope(quota.scope);
}

std::string DescribeTerms(const rules_t& rules, const rule_t& rule) {
  if (rule.denies) return "deny";
  std::string text = "allow";
  if (rule.priority == Priority::kHigh) text += ", priority high";
  if (rule.priority == Priority::kLow) text += ", priority low";
  for (const size_t i : rule.limits) text += DescribeLimit(rules.limits[i]);
  for (const size_t i : rule.quotas) text += DescribeQuota(rules.quotas[i]);
  return text;
}

std::string DescribeRule(const rules_t& rules, const rule_t& rule) {
  // The path of a link may have any characters.
  return EscapeControls(DescribeRuleName(rule) + ": " +
                        DescribeConditions(rule) + ": " +
                        DescribeTerms(rules, rule));
}

void Explain(const rules_t& rules, const flow_facts_t& facts,
             const std::string& what, std::ostream& out) {
  for (const rule_t& rule : rules.rules) {
    const RuleMatch match = MatchRule(rule, facts);
    if (match == RuleMatch::kNo) continue;
    out << what << (match == RuleMatch::kYes ? "" : "perhaps ")
        << DescribeRule(rules, rule) << "\n";
    if (match == RuleMatch::kYes) return;
  }
  out << what << "no rule: allow\n";
}

}  // namespace

std::string DescribeRuleName(const rule_t& rule) {
  return rule.name.empty() ? "rule " + std::to_string(rule.number) + " (line " +
                                 std::to_string(rule.line) + ")"
                           : "rule \"" + rule.name + "\"";
}

void PrintRules(const rules_t& rules, std::ostream& out) {
  for (const rule_t& rule : rules.rules) {
    out << DescribeRule(rules, rule) << "\n";
  }
}

void ExplainRules(const rules_t& rules, const flow_facts_t& facts,
                  std::ostream& out) {
  flow_facts_t one = facts;
  one.transport = Transport::kTcp;
  Explain(rules, one, "stream: ", out);
  one.transport = Transport::kUdp;
  one.has_owner = false;
  Explain(rules, one, "datagrams: ", out);
}

}  // namespace vantrel
