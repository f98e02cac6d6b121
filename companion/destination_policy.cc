#include "companion/destination_policy.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <charconv>
#include <utility>

namespace vantrel {
namespace {

constexpr uint32_t MaskOf(int bits) {
  return bits == 0 ? 0 : ~uint32_t{0} << (32 - bits);
}

// Loopback, "this network", multicast, and reserved with broadcast.
constexpr DestinationPolicy::rule_t kRefused[] = {
    {false, 0x7F000000, MaskOf(8)},
    {false, 0x00000000, MaskOf(8)},
    {false, 0xE0000000, MaskOf(4)},
    {false, 0xF0000000, MaskOf(4)},
};

bool Matches(const DestinationPolicy::rule_t& rule, uint32_t address) {
  return (address & rule.mask) == rule.network;
}

}  // namespace

std::optional<DestinationPolicy::rule_t> DestinationPolicy::ParseRule(
    const std::string& text, bool allows) {
  const size_t slash = text.find('/');
  int bits = 32;
  if (slash != std::string::npos) {
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data() + slash + 1, end, bits);
    if (parsed.ec != std::errc() || parsed.ptr != end || bits < 0 ||
        bits > 32) {
      return std::nullopt;
    }
  }
  in_addr address;
  if (inet_pton(AF_INET, text.substr(0, slash).c_str(), &address) != 1) {
    return std::nullopt;
  }
  const uint32_t network = ntohl(address.s_addr);
  if ((network & ~MaskOf(bits)) != 0) return std::nullopt;
  return rule_t{allows, network, MaskOf(bits)};
}

DestinationPolicy::DestinationPolicy(std::vector<rule_t> rules,
                                     IsLocal is_local)
    : rules_(std::move(rules)), is_local_(std::move(is_local)) {}

bool DestinationPolicy::Allows(const IpAddress& address) const {
  if (address.GetFamily() != AF_INET) return false;
  const uint32_t bits = ntohl(address.GetAddrV4());
  for (auto rule = rules_.rbegin(); rule != rules_.rend(); ++rule) {
    if (Matches(*rule, bits)) return rule->allows;
  }
  for (const rule_t& rule : kRefused) {
    if (Matches(rule, bits)) return false;
  }
  return !is_local_(address).value_or(true);
}

}  // namespace vantrel
