#include <gmock/gmock.h>

#include <sstream>

#include "companion/amount.h"
#include "companion/link_peer.h"
#include "companion/rule_match.h"
#include "companion/rules_file.h"
#include "companion/rules_text.h"

namespace vantrel {
namespace {

rules_t Rules(const std::string& text) {
  rules_reading_t reading = ReadRules(text, "F");
  EXPECT_THAT(reading.errors, testing::IsEmpty());
  return std::move(reading.rules);
}

flow_facts_t Facts(std::optional<uint32_t> uid,
                   std::optional<std::string_view> package) {
  flow_facts_t facts;
  facts.has_owner = uid || package;
  facts.uid = uid;
  facts.package = package;
  facts.device = "01:23:45:67:89:AB";
  facts.link = "unix:/run/link";
  facts.address = 0xC6336407;  // 198.51.100.7
  facts.port = 443;
  return facts;
}

TEST(RulesTest, WhatIsUnderstoodIsPrinted) {
  std::ostringstream out;
  PrintRules(Rules(R"(
    [limit.tablet]
    down = "1.5 MB/s"
    each = "device"
    [quota]
    month = { bytes = "2 GiB", per = "month" }
    [[rule]]
    name = "mail"
    application = ["com.example.*", 10123, "10200-10299", "unknown"]
    device = ["01:23:45:67:89:ab", "192.0.2.7"]
    link = "unix:/run/\u001b"
    destination = ["198.51.100.0/24", "203.0.113.1"]
    port = [443, "8000-8080"]
    protocol = "tcp"
    metered = true
    priority = "low"
    limit = ["tablet", { up = "2 Mbit/s", each = "application" }]
    quota = ["month", { bytes = "500 MB", per = "day" }]
    [[rule]]
    metered = false
    action = "deny"
    [[rule]]
    action = "allow")"),
             out);
  EXPECT_EQ(
      "rule \"mail\": application com.example.* or UID 10123 or UID "
      "10200-10299 or unknown, device 01:23:45:67:89:AB or 192.0.2.7, link "
      "unix:/run/\\x1b, destination 198.51.100.0/24 or 203.0.113.1/32, port "
      "443 or 8000-8080, TCP, metered: allow, priority low, limit down 1500000 "
      "bytes/s each device, limit up 250000 bytes/s each application, quota "
      "\"month\" 2147483648 bytes per month, quota \"mail\" 500000000 bytes "
      "per day\n"
      "rule 2 (line 19): not metered: deny\n"
      "rule 3 (line 22): everything: allow\n",
      out.str());
}

TEST(RulesTest, SaysWhatIsWrongAndWhere) {
  const struct {
    const char* text;
    const char* error;
  } cases[] = {
      {"[[rule]\n", "F:1: .*"},
      {"\xff\n", "F:1: .*"},
      {"[[rule]]\naction = \"a\\u001b\"\n", "F:2: 'a\\\\x1b' must be allow.*"},
      {"[[rules]]\n", "F:1: 'rules' is no key of .*: limit quota rule"},
      {"rule = 3", "F:1: a rule begins with \\[\\[rule\\]\\]"},
      {"rule = [3]", "F:1: a rule begins with \\[\\[rule\\]\\]"},
      {"\n[[rule]]\n\nuser = 3\naction = \"deny\"", "F:4: 'user' is no key.*"},
      {"[[rule]]\nport = 3", "F:1: a rule has an action, .*"},
      {"[[rule]]\naction = \"deny\"\npriority = \"low\"", "F:1: what is.*"},
      {"[[rule]]\nname = \"\"\naction = \"deny\"", "F:2: '' is no name.*"},
      {"[[rule]]\nname = \"\\n\"\naction = \"deny\"", "F:2: '\\\\x0a' is no.*"},
      {"[[rule]]\naction = \"deny\"\napplication = -1", "F:3: '-1' is not.*"},
      {"[[rule]]\naction = \"deny\"\napplication = 4294967295", "F:3: .*"},
      {"[[rule]]\naction = \"deny\"\napplication = \"3-2\"", "F:3: '3-2' .*"},
      {"[[rule]]\naction = \"deny\"\napplication = \"a b\"", "F:3: 'a b' .*"},
      {"[[rule]]\naction = \"deny\"\napplication = []", "F:3: an empty list.*"},
      {"[[rule]]\naction = \"deny\"\napplication = [1,\n{}]", "F:4: '' is .*"},
      {"[[rule]]\naction = \"deny\"\ndevice = \"unix\"", "F:3: 'unix' .*"},
      {"[[rule]]\naction = \"deny\"\nlink = \"tcp:\"", "F:3: 'tcp:' .*"},
      {"[[rule]]\naction = \"deny\"\ndestination = \"10.0.0.1/8\"", "F:3: .*"},
      {"[[rule]]\naction = \"deny\"\ndestination = \"a.example\"", "F:3: .*"},
      {"[[rule]]\naction = \"deny\"\nport = 65536", "F:3: '65536' is not .*"},
      {"[[rule]]\naction = \"deny\"\nprotocol = \"icmp\"", "F:3: 'icmp' .*"},
      {"[[rule]]\naction = \"deny\"\nmetered = 1", "F:3: metered must be.*"},
      {"[[rule]]\naction = \"deny\"\napplication = 1\nprotocol = \"udp\"",
       "F:1: matches nothing.*"},
      {"[[rule]]\nlimit = \"x\"", "F:2: there is no \\[limit.x\\]"},
      {"[[rule]]\nlimit = {}", "F:2: a limit has down, up or both"},
      {"[[rule]]\nlimit = { down = \"1 B/s\" }", "F:2: '1 B/s' is no rate.*"},
      {"[[rule]]\nlimit = { down = \"1 kB\" }", "F:2: '1 kB' is no rate.*"},
      {"[[rule]]\nlimit.up = \"1 MB/s\"\nlimit.each = \"x\"", "F:3: 'x' .*"},
      {"[[rule]]\nquota = { bytes = \"1 MB\", per = \"day\" }",
       "F:2: a rule with a quota needs a name.*"},
      {"[[rule]]\nname = \"n\"\nquota = { bytes = \"1 MB\" }", "F:3: .*per"},
      {"[[rule]]\nname = \"n\"\nquota = { bytes = 1, per = \"day\" }",
       "F:3: must be a string: .*"},
      {"[quota]\nn = { bytes = \"1 MB\", per = \"day\" }\n[[rule]]\n"
       "name = \"n\"\nquota = { bytes = \"1 MB\", per = \"day\" }",
       "F:5: another quota has the name 'n'"},
      {"[[rule]]\nname = \"n\"\naction = \"deny\"\n[[rule]]\nname = \"n\"\n"
       "action = \"deny\"",
       "F:5: another rule has the name 'n'"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT(ReadRules(c.text, "F").errors,
                testing::ElementsAre(testing::MatchesRegex(c.error)))
        << c.text;
  }
  std::string many;
  for (int i = 0; i < 100; ++i) many += "[[rule]]\n";
  const auto errors = ReadRules(many, "F").errors;
  ASSERT_EQ(21u, errors.size());
  EXPECT_EQ("F: 80 more errors", errors.back());
  EXPECT_THAT(ReadRulesFile("/dev/null").errors,
              testing::ElementsAre("/dev/null: not a regular file"));
  EXPECT_THAT(ReadRulesFile("/nowhere").errors,
              testing::ElementsAre("/nowhere: No such file or directory"));
}

TEST(RulesTest, WarnsOfWhatARuleDoesNotReach) {
  EXPECT_THAT(
      ReadRules("[[rule]]\napplication = 7\naction = \"deny\"\n"
                "[[rule]]\napplication = 7\nprotocol = \"tcp\"\n"
                "action = \"deny\"\n"
                "[[rule]]\napplication = [\"a\", \"unknown\"]\n"
                "action = \"deny\"\n"
                "[[rule]]\nname = \"all\"\naction = \"deny\"\n"
                "[[rule]]\naction = \"allow\"\n",
                "F")
          .warnings,
      testing::ElementsAre(
          testing::StartsWith("F:1: warning: rule 1 (line 1) names app"),
          testing::StartsWith("F:11: warning: rule \"all\" matches every")));
}

TEST(RulesTest, TheFirstThatMatchesDecides) {
  const rules_t rules = Rules(R"(
    [[rule]]
    name = "elsewhere"
    destination = "203.0.113.0/24"
    action = "deny"
    [[rule]]
    name = "uid"
    application = ["10000-10009", 10020]
    action = "deny"
    [[rule]]
    name = "package"
    application = "com.*.mail*"
    port = "400-443"
    action = "deny"
    [[rule]]
    name = "nobody"
    application = "unknown"
    metered = true
    action = "deny"
    [[rule]]
    name = "device"
    device = "01:23:45:67:89:AB"
    link = "fd"
    action = "deny"
    [[rule]]
    name = "udp"
    protocol = "udp"
    action = "deny")");
  const auto find = [&rules](const flow_facts_t& facts) {
    bool is_certain = false;
    const rule_t* const rule = FindRule(rules, facts, &is_certain);
    return (is_certain ? "" : "perhaps ") + (rule ? rule->name : "none");
  };
  EXPECT_EQ("none", find(Facts(1, "")));
  EXPECT_EQ("uid", find(Facts(10009, std::nullopt)));
  EXPECT_EQ("uid", find(Facts(10020, "")));
  EXPECT_EQ("none", find(Facts(10010, "")));
  EXPECT_EQ("perhaps package", find(Facts(10010, std::nullopt)));
  EXPECT_EQ("package", find(Facts(10010, "com.example.mail")));
  EXPECT_EQ("package", find(Facts(10010, "com..mail.mail.x")));
  EXPECT_EQ("none", find(Facts(10010, "com.mail")));
  EXPECT_EQ("none", find(Facts(10010, "xcom.a.mail")));
  flow_facts_t facts = Facts(std::nullopt, std::nullopt);
  EXPECT_EQ("none", find(facts));
  facts.is_metered = true;
  EXPECT_EQ("nobody", find(facts));
  facts = Facts(10010, "com.example.mail");
  facts.port = 444;
  EXPECT_EQ("none", find(facts));
  facts.link = "fd";
  EXPECT_EQ("device", find(facts));
  facts.device = "01:23:45:67:89:AC";
  facts.transport = Transport::kUdp;
  EXPECT_EQ("udp", find(facts));
  facts.address = 0xCB007109;
  EXPECT_EQ("elsewhere", find(facts));

  for (const auto& [pattern, name, matches] :
       std::vector<std::tuple<const char*, const char*, bool>>{
           {"*", "x", true},
           {"a*b*c", "aXbXbXc", true},
           {"a*b*c", "aXcXb", false},
           {"*a", "aba", true},
           {"a", "ab", false},
           {"ab", "a", false},
           {"**", "", true}}) {
    EXPECT_EQ(matches, MatchesPattern(pattern, name)) << pattern << name;
  }
}

TEST(RulesTest, ExplainsWhatMayMatch) {
  const rules_t rules = Rules(R"(
    [[rule]]
    name = "uid"
    application = 10123
    action = "deny"
    [[rule]]
    name = "tablet"
    device = "01:23:45:67:89:AB"
    action = "deny"
    [[rule]]
    name = "mail"
    application = "com.example.mail"
    action = "allow")");
  flow_facts_t facts = Facts(std::nullopt, "com.example.mail");
  facts.device.reset();
  std::ostringstream out;
  ExplainRules(rules, facts, out);
  EXPECT_EQ(
      "stream: perhaps rule \"uid\": application UID 10123: deny\n"
      "stream: perhaps rule \"tablet\": device 01:23:45:67:89:AB: deny\n"
      "stream: rule \"mail\": application com.example.mail: allow\n"
      "datagrams: perhaps rule \"tablet\": device 01:23:45:67:89:AB: deny\n"
      "datagrams: no rule: allow\n",
      out.str());
}

TEST(LinkPeerTest, IsTheSameDeviceEachTime) {
  for (const auto& [text, device] :
       std::vector<std::pair<const char*, const char*>>{
           {"rfcomm:01:23:45:67:89:AB", "01:23:45:67:89:AB"},
           {"bluetooth:01:23:45:67:89:AB", "01:23:45:67:89:AB"},
           {"tcp:192.0.2.7:40000", "192.0.2.7"},
           {"tcp:::ffff:192.0.2.7:40000", "192.0.2.7"},
           {"tcp:2001:db8::1:40000", "2001:db8::1"},
           {"tcp:[2001:db8::1]:40000", "2001:db8::1"},
           {"unix: process 7 of user 0", "LINK"},
           {"inherited", "LINK"}}) {
    EXPECT_EQ(device, MakeLinkPeer(text, "LINK").device);
  }
}

TEST(AmountTest, TakesUnitsOnly) {
  EXPECT_EQ(0u, ParseBytes("0 B"));
  EXPECT_EQ(1500u, ParseBytes("1.5kB"));
  EXPECT_EQ(1000000000000000u, ParseBytes("1000 TB"));
  EXPECT_EQ(125u, ParseRate("1 kbit/s"));
  EXPECT_EQ(1048576u, ParseRate("1 MiB/s"));
  for (const char* const text :
       {"", "5", "kB", "-1 kB", "1e3 kB", "inf B", "1 kb", "1 kB ", "1001 TB",
        "1 kbit", "1 kB/s", "0x1 B", "1.5.5 B"}) {
    EXPECT_EQ(std::nullopt, ParseBytes(text)) << text;
  }
  for (const char* const text : {"", "/s", "1 kB", "1/s", "1 kB/ s"}) {
    EXPECT_EQ(std::nullopt, ParseRate(text)) << text;
  }
}

}  // namespace
}  // namespace vantrel
