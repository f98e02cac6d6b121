#include "companion/amount.h"

#include <charconv>
#include <cmath>
#include <iterator>

namespace vantrel {
namespace {

struct unit_t {
  std::string_view name;
  double bytes;
};

constexpr unit_t kUnits[] = {
    {"B", 1},         {"kB", 1e3},      {"MB", 1e6},       {"GB", 1e9},
    {"TB", 1e12},     {"KiB", 0x1p10},  {"MiB", 0x1p20},   {"GiB", 0x1p30},
    {"TiB", 0x1p40},  {"bit", 1.0 / 8}, {"kbit", 1e3 / 8}, {"Mbit", 1e6 / 8},
    {"Gbit", 1e9 / 8}};
// Those of a plain amount of bytes stand in front.
constexpr size_t kByteUnits = 9;

std::optional<uint64_t> Parse(std::string_view text, size_t units) {
  const char* const end = text.data() + text.size();
  double number = 0;
  // Words for numbers and a sign are none here.
  if (text.empty() || text[0] < '0' || text[0] > '9') return std::nullopt;
  const auto parsed =
      std::from_chars(text.data(), end, number, std::chars_format::fixed);
  if (parsed.ec != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<size_t>(parsed.ptr - text.data()));
  while (!text.empty() && text[0] == ' ') text.remove_prefix(1);
  for (size_t i = 0; i < units; ++i) {
    if (kUnits[i].name != text) continue;
    const double amount = std::round(number * kUnits[i].bytes);
    if (amount > kMaxAmount) return std::nullopt;
    return static_cast<uint64_t>(amount);
  }
  return std::nullopt;
}

}  // namespace

std::optional<uint64_t> ParseBytes(std::string_view text) {
  return Parse(text, kByteUnits);
}

std::optional<uint64_t> ParseRate(std::string_view text) {
  constexpr std::string_view kPerSecond = "/s";
  if (text.size() < kPerSecond.size() ||
      text.substr(text.size() - kPerSecond.size()) != kPerSecond) {
    return std::nullopt;
  }
  text.remove_suffix(kPerSecond.size());
  return Parse(text, std::size(kUnits));
}

}  // namespace vantrel
