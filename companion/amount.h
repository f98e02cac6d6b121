// Amounts of bytes as people write them.
#pragma once

#include <stdint.h>

#include <optional>
#include <string_view>

namespace vantrel {

constexpr char kBytesForm[] = "number of bytes, as \"500 MB\"";
constexpr char kRateForm[] = "rate, as \"200 kB/s\" or \"2 Mbit/s\"";

// "NUMBER [UNIT]": B, kB, MB, GB, TB are powers of 1000, KiB, MiB, GiB, TiB of
// 1024. None for anything else, and for more than kMaxAmount.
std::optional<uint64_t> ParseBytes(std::string_view text);
// "NUMBER UNIT/s", in bytes per second: the same units, and bit, kbit, Mbit,
// Gbit.
std::optional<uint64_t> ParseRate(std::string_view text);
constexpr double kMaxAmount = 1e15;

}  // namespace vantrel
