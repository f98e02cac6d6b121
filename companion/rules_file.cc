#include "companion/rules_file.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <toml++/toml.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "common/bluetooth_address.h"
#include "common/link_address.h"
#include "common/printable.h"
#include "common/uid.h"
#include "companion/amount.h"
#include "companion/rules_text.h"
#include "support/whole_file.h"

namespace vantrel {
namespace {

// A file that is no rules file at all would have one for each of its lines.
constexpr size_t kMaxErrors = 20;
constexpr size_t kMaxNameBytes = 64;
// Longer than any name that a device's packages may have.
constexpr size_t kMaxPatternBytes = 256;
// Of one rule: each costs something for every piece of a stream.
constexpr size_t kMaxOfOneRule = 8;
// Below that connections only time out: who wants that, denies.
constexpr uint64_t kMinRate = 1000;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// "N" or "N-N", with both at most |max|.
template <typename Range>
std::optional<Range> ParseRange(const std::string& text, uint64_t max) {
  const char* const end = text.data() + text.size();
  uint64_t first = 0;
  auto parsed = std::from_chars(text.data(), end, first);
  uint64_t last = first;
  if (parsed.ec == std::errc() && parsed.ptr != end && *parsed.ptr == '-') {
    parsed = std::from_chars(parsed.ptr + 1, end, last);
  }
  if (parsed.ec != std::errc() || parsed.ptr != end || first > last ||
      last > max) {
    return std::nullopt;
  }
  using Number = decltype(Range::first);
  return Range{static_cast<Number>(first), static_cast<Number>(last)};
}

// As link_peer_t::device has it.
std::optional<std::string> ParseDevice(const std::string& text) {
  if (const auto bluetooth = ParseBluetoothAddress(text)) {
    return ToText(*bluetooth);
  }
  in6_addr address;
  char canonical[INET6_ADDRSTRLEN];
  for (const int family : {AF_INET, AF_INET6}) {
    if (inet_pton(family, text.c_str(), &address) == 1) {
      return inet_ntop(family, &address, canonical, sizeof(canonical));
    }
  }
  return std::nullopt;
}

bool IsPattern(const std::string& text) {
  return !text.empty() && text.size() <= kMaxPatternBytes &&
         std::all_of(text.begin(), text.end(),
                     [](char c) { return c > ' ' && c <= '~'; });
}

bool IsCatchAll(const rule_t& rule) {
  return rule.uids.empty() && rule.packages.empty() &&
         !rule.is_for_unknown_owner && rule.devices.empty() &&
         rule.links.empty() && rule.destinations.empty() &&
         rule.ports.empty() && !rule.transport && !rule.is_metered;
}

// Of a rule that can match only what has an owner.
bool NeedsOwner(const rule_t& rule) {
  return !rule.is_for_unknown_owner &&
         !(rule.uids.empty() && rule.packages.empty());
}

// Walks through the parsed file. The members that end in a word of the format
// are what is being read.
class Reader {
 public:
  explicit Reader(const std::string& file) : file_(file) {}

  rules_reading_t Read(std::string_view text) {
    try {
      ReadRoot(toml::parse(text));
    } catch (const toml::parse_error& error) {
      FailAt(error.source().begin.line, std::string(error.description()));
    }
    if (left_out_ > 0) {
      reading_.errors.push_back(EscapeControls(
          file_ + ": " + std::to_string(left_out_) + " more errors"));
    }
    return std::move(reading_);
  }

 private:
  using Setter = void (Reader::*)(const toml::node& value);
  using Names = std::map<std::string, size_t>;  // to indices into rules_t
  struct key_t {
    const char* name;
    Setter set;
  };

  std::string At(uint32_t line, const std::string& what) const {
    return EscapeControls(file_ + ":" + std::to_string(line) + ": " + what);
  }
  void FailAt(uint32_t line, const std::string& what) {
    if (reading_.errors.size() == kMaxErrors) {
      ++left_out_;
    } else {
      reading_.errors.push_back(At(line, what));
    }
  }
  void Fail(const toml::node& at, const std::string& what) {
    FailAt(at.source().begin.line, what);
  }
  void Warn(const rule_t& rule, const std::string& what) {
    reading_.warnings.push_back(
        At(rule.line, "warning: " + DescribeRuleName(rule) + " " + what));
  }

  template <size_t Count>
  void ReadKeys(const toml::table& table, const char* what,
                const key_t (&keys)[Count]) {
    for (const auto& [name, value] : table) {
      const auto* const key = std::find_if(
          std::begin(keys), std::end(keys),
          [&name = name](const key_t& one) { return name.str() == one.name; });
      if (key != std::end(keys)) {
        (this->*key->set)(value);
        continue;
      }
      std::string known;
      for (const key_t& one : keys) known += std::string(" ") + one.name;
      FailAt(name.source().begin.line, "'" + std::string(name.str()) +
                                           "' is no key of " + what +
                                           ", which may have:" + known);
    }
  }

  // A value stands for a list of itself.
  template <typename Take>
  void ForEach(const toml::node& value, const Take& take) {
    const toml::array* const list = value.as_array();
    if (list == nullptr) return take(value);
    if (list->empty()) Fail(value, "an empty list would match nothing");
    for (const toml::node& one : *list) take(one);
  }

  // Null where |value| is no string, which is told.
  const std::string* GetText(const toml::node& value, const char* form) {
    const auto* const text = value.as_string();
    if (text != nullptr) return &text->get();
    Fail(value, std::string("must be a string: ") + form);
    return nullptr;
  }
  template <typename Value>
  std::optional<Value> GetChoice(
      const toml::node& value, const char* form,
      std::initializer_list<std::pair<const char*, Value>> choices) {
    const std::string* const text = GetText(value, form);
    if (text == nullptr) return std::nullopt;
    for (const auto& [word, choice] : choices) {
      if (*text == word) return choice;
    }
    Fail(value, "'" + *text + "' must be " + form);
    return std::nullopt;
  }

  void ReadRoot(const toml::table& root) {
    // What rules name comes before them, wherever it stands.
    static constexpr key_t kShared[] = {{"limit", &Reader::ReadLimits},
                                        {"quota", &Reader::ReadQuotas},
                                        {"rule", &Reader::Skip}};
    ReadKeys(root, "a rules file", kShared);
    if (const toml::node* const rules = root.get("rule")) ReadRuleList(*rules);
    Finish();
  }
  void Skip(const toml::node& /*value*/) {}

  void ReadLimits(const toml::node& value) {
    ReadNamed(value, "[limit.NAME]", &limits_,
              [this](const toml::node& one, const std::string& name) {
                return AddLimit(one, name);
              });
  }
  void ReadQuotas(const toml::node& value) {
    ReadNamed(value, "[quota.NAME]", &quotas_,
              [this](const toml::node& one, const std::string& name) {
                return AddQuota(one, name);
              });
  }
  template <typename Add>
  void ReadNamed(const toml::node& value, const char* form, Names* names,
                 const Add& add) {
    const toml::table* const table = value.as_table();
    if (table == nullptr) return Fail(value, std::string("must be ") + form);
    for (const auto& [name, one] : *table) {
      const std::string text(name.str());
      if (!IsName(text)) {
        FailName(one, text);
      } else if (const auto index = add(one, text)) {
        names->emplace(text, *index);
      }
    }
  }
  static bool IsName(const std::string& text) {
    return !text.empty() && text.size() <= kMaxNameBytes &&
           EscapeControls(text) == text;
  }
  void FailName(const toml::node& at, const std::string& text) {
    Fail(at, "'" + text + "' is no name: 1 to " +
                 std::to_string(kMaxNameBytes) +
                 " bytes without control characters");
  }

  // Both give the index of what they have added; none after a failure.
  std::optional<size_t> AddLimit(const toml::node& value,
                                 const std::string& name) {
    static constexpr key_t kKeys[] = {{"down", &Reader::ReadDown},
                                      {"up", &Reader::ReadUp},
                                      {"each", &Reader::ReadLimitScope}};
    const toml::table* const table = value.as_table();
    if (table == nullptr) {
      Fail(value, "a limit is a table, as in { down = \"1 MB/s\" }");
      return std::nullopt;
    }
    limit_ = limit_t();
    limit_.name = name;
    const size_t errors = CountErrors();
    ReadKeys(*table, "a limit", kKeys);
    if (CountErrors() != errors) return std::nullopt;
    if (limit_.down == 0 && limit_.up == 0) {
      Fail(value, "a limit has down, up or both");
      return std::nullopt;
    }
    reading_.rules.limits.push_back(limit_);
    return reading_.rules.limits.size() - 1;
  }
  std::optional<size_t> AddQuota(const toml::node& value,
                                 const std::string& name) {
    static constexpr key_t kKeys[] = {{"bytes", &Reader::ReadBytes},
                                      {"per", &Reader::ReadPeriod},
                                      {"each", &Reader::ReadQuotaScope}};
    const toml::table* const table = value.as_table();
    if (table == nullptr) {
      Fail(value,
           "a quota is a table, as in { bytes = \"500 MB\", per = \"day\" }");
      return std::nullopt;
    }
    quota_ = quota_t();
    quota_.name = name;
    const size_t errors = CountErrors();
    ReadKeys(*table, "a quota", kKeys);
    if (CountErrors() != errors) return std::nullopt;
    if (quota_.bytes == 0 || !table->contains("per")) {
      Fail(value, "a quota has bytes and per");
      return std::nullopt;
    }
    if (!quota_names_.insert(name).second) {
      Fail(value, "another quota has the name '" + name + "'");
      return std::nullopt;
    }
    reading_.rules.quotas.push_back(quota_);
    return reading_.rules.quotas.size() - 1;
  }
  size_t CountErrors() const { return reading_.errors.size() + left_out_; }

  void ReadDown(const toml::node& value) { ReadRate(value, &limit_.down); }
  void ReadUp(const toml::node& value) { ReadRate(value, &limit_.up); }
  void ReadRate(const toml::node& value, uint64_t* rate) {
    const std::string* const text = GetText(value, kRateForm);
    if (text == nullptr) return;
    const auto parsed = ParseRate(*text);
    if (!parsed || *parsed < kMinRate) {
      return Fail(value,
                  "'" + *text + "' is no " + kRateForm + ", at least 1 kB/s");
    }
    *rate = *parsed;
  }
  void ReadBytes(const toml::node& value) {
    const std::string* const text = GetText(value, kBytesForm);
    if (text == nullptr) return;
    const auto parsed = ParseBytes(*text);
    if (!parsed || *parsed == 0) {
      return Fail(value, "'" + *text + "' is no " + kBytesForm);
    }
    quota_.bytes = *parsed;
  }
  void ReadPeriod(const toml::node& value) {
    const auto period =
        GetChoice<Period>(value, "day or month",
                          {{"day", Period::kDay}, {"month", Period::kMonth}});
    if (period) quota_.period = *period;
  }
  void ReadLimitScope(const toml::node& value) {
    ReadScope(value, &limit_.scope);
  }
  void ReadQuotaScope(const toml::node& value) {
    ReadScope(value, &quota_.scope);
  }
  void ReadScope(const toml::node& value, Scope* scope) {
    const auto chosen = GetChoice<Scope>(
        value, "application or device",
        {{"application", Scope::kApplication}, {"device", Scope::kDevice}});
    if (chosen) *scope = *chosen;
  }

  void ReadRuleList(const toml::node& value) {
    const toml::array* const list = value.as_array();
    if (list == nullptr) return Fail(value, "a rule begins with [[rule]]");
    for (const toml::node& one : *list) {
      const toml::table* const table = one.as_table();
      table == nullptr ? Fail(one, "a rule begins with [[rule]]")
                       : ReadRule(*table);
    }
  }

  void ReadRule(const toml::table& table) {
    static constexpr key_t kKeys[] = {
        {"name", &Reader::Skip},
        {"application", &Reader::ReadApplications},
        {"device", &Reader::ReadDevices},
        {"link", &Reader::ReadLinks},
        {"destination", &Reader::ReadDestinations},
        {"port", &Reader::ReadPorts},
        {"protocol", &Reader::ReadTransport},
        {"metered", &Reader::ReadMetered},
        {"action", &Reader::ReadAction},
        {"priority", &Reader::ReadPriority},
        {"limit", &Reader::ReadRuleLimits},
        {"quota", &Reader::ReadRuleQuotas},
    };
    rule_ = rule_t();
    rule_.number = reading_.rules.rules.size() + 1;
    rule_.line = table.source().begin.line;
    // Its quotas have the rule's name.
    if (const toml::node* const name = table.get("name")) ReadName(*name);
    ReadKeys(table, "a rule", kKeys);
    CheckRule(table);
    reading_.rules.rules.push_back(std::move(rule_));
  }

  void CheckRule(const toml::table& table) {
    bool has_terms = false;
    for (const char* const key : {"priority", "limit", "quota"}) {
      has_terms = has_terms || table.contains(key);
    }
    if (rule_.denies && has_terms) {
      Fail(table, "what is denied has no priority, limit or quota");
    } else if (!has_terms && !table.contains("action")) {
      Fail(table,
           "a rule has an action, a priority, a limit or a quota: what "
           "follows when it matches?");
    }
    if (NeedsOwner(rule_) && rule_.transport == Transport::kUdp) {
      Fail(table, "matches nothing: the link tells no owner of a datagram");
    }
  }

  void ReadName(const toml::node& value) {
    const std::string* const text = GetText(value, "a name");
    if (text == nullptr) return;
    if (!IsName(*text)) return FailName(value, *text);
    if (!rule_names_.insert(*text).second) {
      return Fail(value, "another rule has the name '" + *text + "'");
    }
    rule_.name = *text;
  }

  void ReadApplications(const toml::node& value) {
    ForEach(value, [this](const toml::node& one) { ReadApplication(one); });
  }
  void ReadApplication(const toml::node& value) {
    static constexpr char kForm[] =
        "a package name, in which * stands for any characters, a UID, a range "
        "of them as 10000-19999, or unknown";
    const auto* const number = value.as_integer();
    const auto* const text = value.as_string();
    const std::string word = number != nullptr ? std::to_string(number->get())
                             : text != nullptr ? text->get()
                                               : "";
    if (word == "unknown") {
      rule_.is_for_unknown_owner = true;
    } else if (number != nullptr || (!word.empty() && IsDigit(word[0]))) {
      const auto range = ParseRange<uid_range_t>(word, kNobodyUid - 1);
      if (!range) return Fail(value, "'" + word + "' is not " + kForm);
      rule_.uids.push_back(*range);
    } else if (IsPattern(word)) {
      rule_.packages.push_back(word);
    } else {
      Fail(value, "'" + word + "' is not " + kForm);
    }
  }

  void ReadDevices(const toml::node& value) {
    static constexpr char kForm[] = "a Bluetooth address or an IP address";
    ForEach(value, [this](const toml::node& one) {
      const std::string* const text = GetText(one, kForm);
      if (text == nullptr) return;
      const auto device = ParseDevice(*text);
      if (!device) return Fail(one, "'" + *text + "' is not " + kForm);
      rule_.devices.push_back(*device);
    });
  }

  void ReadLinks(const toml::node& value) {
    static constexpr char kForm[] = "an address of --listen, or fd";
    ForEach(value, [this](const toml::node& one) {
      const std::string* const text = GetText(one, kForm);
      if (text == nullptr) return;
      std::string reason;
      if (*text != "fd" &&
          !ParseLinkAddress(*text, LinkSide::kListen, &reason)) {
        return Fail(one, "'" + *text + "' is not " + kForm + ": " + reason);
      }
      rule_.links.push_back(*text);
    });
  }

  void ReadDestinations(const toml::node& value) {
    static constexpr char kForm[] =
        "ADDRESS[/BITS], as in 10.0.0.0/8: no more than BITS bits of ADDRESS "
        "may be set";
    ForEach(value, [this](const toml::node& one) {
      const std::string* const text = GetText(one, kForm);
      if (text == nullptr) return;
      const auto network = DestinationPolicy::ParseRule(*text, true);
      if (!network) return Fail(one, "'" + *text + "' is not " + kForm);
      rule_.destinations.push_back(*network);
    });
  }

  void ReadPorts(const toml::node& value) {
    ForEach(value, [this](const toml::node& one) {
      const auto* const number = one.as_integer();
      const auto* const text = one.as_string();
      const std::string word = number != nullptr ? std::to_string(number->get())
                               : text != nullptr ? text->get()
                                                 : "";
      const auto range = ParseRange<port_range_t>(word, UINT16_MAX);
      if (!range) {
        return Fail(one, "'" + word +
                             "' is not a port, or a range of them as "
                             "8000-8080");
      }
      rule_.ports.push_back(*range);
    });
  }

  void ReadTransport(const toml::node& value) {
    rule_.transport = GetChoice<Transport>(
        value, "tcp or udp",
        {{"tcp", Transport::kTcp}, {"udp", Transport::kUdp}});
  }
  void ReadMetered(const toml::node& value) {
    const auto* const flag = value.as_boolean();
    if (flag == nullptr) return Fail(value, "metered must be true or false");
    rule_.is_metered = flag->get();
  }
  void ReadAction(const toml::node& value) {
    rule_.denies = GetChoice<bool>(value, "allow or deny",
                                   {{"allow", false}, {"deny", true}})
                       .value_or(false);
  }
  void ReadPriority(const toml::node& value) {
    const auto priority = GetChoice<Priority>(value, "high, normal or low",
                                              {{"high", Priority::kHigh},
                                               {"normal", Priority::kNormal},
                                               {"low", Priority::kLow}});
    if (priority) rule_.priority = *priority;
  }

  void ReadRuleLimits(const toml::node& value) {
    ForEach(value, [this](const toml::node& one) {
      const auto limit = one.is_string() ? FindNamed(one, limits_, "[limit.")
                                         : AddLimit(one, rule_.name);
      if (limit) rule_.limits.push_back(*limit);
    });
    CheckCount(value, rule_.limits.size());
  }
  void ReadRuleQuotas(const toml::node& value) {
    ForEach(value, [this](const toml::node& one) {
      if (!one.is_string() && rule_.name.empty()) {
        return Fail(one,
                    "a rule with a quota needs a name, by which its count is "
                    "kept");
      }
      const auto quota = one.is_string() ? FindNamed(one, quotas_, "[quota.")
                                         : AddQuota(one, rule_.name);
      if (quota) rule_.quotas.push_back(*quota);
    });
    CheckCount(value, rule_.quotas.size());
  }
  void CheckCount(const toml::node& value, size_t count) {
    if (count <= kMaxOfOneRule) return;
    Fail(value, "more than " + std::to_string(kMaxOfOneRule) + " of one rule");
  }
  std::optional<size_t> FindNamed(const toml::node& value, const Names& names,
                                  const std::string& kind) {
    const std::string& name = value.as_string()->get();
    const auto found = names.find(name);
    if (found != names.end()) return found->second;
    Fail(value, "there is no " + kind + name + "]");
    return std::nullopt;
  }

  void Finish() {
    if (!reading_.errors.empty()) return;
    const std::vector<rule_t>& rules = reading_.rules.rules;
    for (const rule_t& rule : rules) {
      if (NeedsOwner(rule) && !rule.transport) {
        Warn(rule,
             "names applications, so it reaches TCP alone: the link tells no "
             "owner of a datagram");
      }
    }
    const auto last = std::find_if(rules.begin(), rules.end(), IsCatchAll);
    if (last != rules.end() && last + 1 != rules.end()) {
      Warn(*last, "matches everything: no rule below it is ever reached");
    }
  }

  const std::string file_;
  rules_reading_t reading_;
  size_t left_out_ = 0;
  std::set<std::string> rule_names_;
  std::set<std::string> quota_names_;  // also those of rules
  Names limits_;                       // that any rule may name
  Names quotas_;
  rule_t rule_;
  limit_t limit_;
  quota_t quota_;
};

}  // namespace

rules_reading_t ReadRules(std::string_view text, const std::string& file) {
  return Reader(file).Read(text);
}

rules_reading_t ReadRulesFile(const std::string& path) {
  std::string text;
  const int error = ReadWholeFile(path, kMaxRulesFileBytes, &text);
  if (error == 0) return ReadRules(text, path);
  rules_reading_t reading;
  reading.errors.push_back(
      EscapeControls(path + ": " + DescribeFileError(error)));
  return reading;
}

}  // namespace vantrel
