#include "companion/destination_policy.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "companion/local_routes.h"

namespace vantrel {
namespace {

IpAddress Address(const char* text) {
  in_addr address;
  EXPECT_EQ(1, inet_pton(AF_INET, text, &address)) << text;
  return IpAddress::FromIPv4NetworkBytes(address.s_addr);
}

std::vector<DestinationPolicy::rule_t> Rules(
    const std::vector<std::pair<bool, const char*>>& texts) {
  std::vector<DestinationPolicy::rule_t> rules;
  for (const auto& [allows, text] : texts) {
    rules.push_back(DestinationPolicy::ParseRule(text, allows).value());
  }
  return rules;
}

TEST(DestinationPolicyTest, RefusesThisMachineAndNoHostUnlessAllowed) {
  LocalRoutes routes;  // the real ones
  const auto is_local = [&](const IpAddress& a) { return routes.IsLocal(a); };
  const DestinationPolicy plain({}, is_local);
  for (const char* const refused :
       {"127.0.0.1", "127.255.255.255", "0.0.0.0", "0.1.2.3", "224.0.0.1",
        "239.255.255.255", "240.0.0.1", "255.255.255.255"}) {
    EXPECT_FALSE(plain.Allows(Address(refused))) << refused;
  }
  EXPECT_TRUE(plain.Allows(Address("203.0.113.9")));
  EXPECT_FALSE(plain.Allows(IpAddress()));
  const std::string mapped = std::string(10, '\0') + "\xFF\xFF\x08\x08\x08\x08";
  EXPECT_FALSE(plain.Allows(IpAddress::FromNetworkBytes(mapped)));

  const auto own = [](const IpAddress& a) {
    return a.IsSameAs(Address("192.0.2.1"));
  };
  EXPECT_FALSE(DestinationPolicy({}, own).Allows(Address("192.0.2.1")));
  EXPECT_TRUE(DestinationPolicy({}, own).Allows(Address("192.0.2.2")));
  const auto unknown = [](const IpAddress&) { return std::nullopt; };
  EXPECT_FALSE(DestinationPolicy({}, unknown).Allows(Address("192.0.2.2")));

  const DestinationPolicy ruled(Rules({{true, "127.0.0.0/8"},
                                       {false, "127.0.0.5"},
                                       {false, "192.0.2.0/24"},
                                       {true, "192.0.2.128/25"}}),
                                own);
  EXPECT_TRUE(ruled.Allows(Address("127.0.0.4")));
  EXPECT_FALSE(ruled.Allows(Address("127.0.0.5")));
  EXPECT_FALSE(ruled.Allows(Address("192.0.2.127")));
  EXPECT_TRUE(ruled.Allows(Address("192.0.2.128")));
  EXPECT_TRUE(DestinationPolicy(Rules({{true, "0.0.0.0/0"}}), unknown)
                  .Allows(Address("127.0.0.1")));
}

TEST(DestinationPolicyTest, TakesNetworksOnly) {
  for (const char* const text :
       {"", "1.2.3", "1.2.3.4/33", "1.2.3.4/-1", "1.2.3.4/24", "1.2.3.4/",
        "1.2.3.4/8x", "::1", "host"}) {
    EXPECT_FALSE(DestinationPolicy::ParseRule(text, true)) << text;
  }
}

}  // namespace
}  // namespace vantrel
