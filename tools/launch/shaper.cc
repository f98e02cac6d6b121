#include "tools/launch/shaper.h"

#include <assert.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <initializer_list>
#include <sstream>

namespace vantrel {
namespace {

struct unit_t {
  const char* name;
  double factor;
};

// A number with one of |units| behind it, in the unit whose factor is 1; none
// unless it lies from 1 to |max|.
std::optional<uint64_t> ParseAmount(const std::string& text, double max,
                                    std::initializer_list<unit_t> units) {
  double number = 0;
  const char* const end = text.data() + text.size();
  const auto parsed =
      std::from_chars(text.data(), end, number, std::chars_format::fixed);
  if (parsed.ec != std::errc()) return std::nullopt;
  const std::string name(parsed.ptr, end);
  for (const unit_t& unit : units) {
    const double amount = number * unit.factor;
    if (name == unit.name && amount >= 1 && amount <= max) {
      return static_cast<uint64_t>(amount);
    }
  }
  return std::nullopt;
}

bool ParsePart(const std::string& name, const std::string& value,
               shape_t* shape) {
  std::optional<uint64_t> amount;
  if (name == "rate") {
    amount = ParseAmount(
        value, 1e11, {{"bit", 1}, {"kbit", 1e3}, {"Mbit", 1e6}, {"Gbit", 1e9}});
    shape->bits_per_second = amount.value_or(0);
  } else if (name == "delay") {
    amount = ParseAmount(value, 60e6, {{"us", 1}, {"ms", 1e3}, {"s", 1e6}});
    shape->delay = std::chrono::microseconds(amount.value_or(0));
  } else if (name == "chunk") {
    amount = ParseAmount(value, 65535, {{"", 1}});
    shape->chunk_bytes = static_cast<size_t>(amount.value_or(0));
  }
  return amount.has_value();
}

std::string ToMebibytes(double bytes) {
  return std::to_string(static_cast<uint64_t>(std::ceil(bytes / (1 << 20))));
}

}  // namespace

std::optional<shape_t> ParseShape(const std::string& text,
                                  std::string* reason) {
  shape_t shape;
  std::istringstream parts(text);
  std::string part;
  while (std::getline(parts, part, ',')) {
    const size_t equals = part.find('=');
    if (equals == std::string::npos ||
        !ParsePart(part.substr(0, equals), part.substr(equals + 1), &shape)) {
      *reason =
          "\"" + part + "\" is none of rate=2Mbit, delay=30ms and chunk=990";
      return std::nullopt;
    }
  }
  const double memory = Shaper::GetMemoryBytes(shape);
  if (memory > Shaper::kMaxMemoryBytes) {
    *reason = "such a link needs " + ToMebibytes(memory) +
              " MiB of memory each way, and " +
              ToMebibytes(Shaper::kMaxMemoryBytes) + " is the limit";
    return std::nullopt;
  }
  return shape;
}

double GetBytesOnTheWay(const shape_t& shape) {
  const double seconds = static_cast<double>(shape.delay.count()) / 1e6;
  return static_cast<double>(shape.bits_per_second) / 8 * seconds;
}

double Shaper::GetMemoryBytes(const shape_t& shape) {
  const double bytes = GetBytesOnTheWay(shape);
  if (shape.chunk_bytes == 0) return bytes;
  return bytes * (1 + static_cast<double>(sizeof(run_t)) /
                          static_cast<double>(shape.chunk_bytes));
}

void Shaper::Enter(size_t bytes, SteadyTime now) {
  const size_t chunk = shape_.chunk_bytes > 0 ? shape_.chunk_bytes : bytes;
  busy_until_ = std::max(busy_until_, now);
  while (bytes > 0) {
    const size_t run = std::min(bytes, chunk);
    busy_until_ += GetTransmissionTime(run);
    runs_.push_back({run, busy_until_ + shape_.delay});
    bytes -= run;
  }
}

size_t Shaper::GetDueBytes(SteadyTime now) const {
  return !runs_.empty() && runs_.front().due <= now ? runs_.front().bytes : 0;
}

void Shaper::Leave(size_t bytes) {
  assert(!runs_.empty() && bytes <= runs_.front().bytes);
  runs_.front().bytes -= bytes;
  if (runs_.front().bytes == 0) runs_.pop_front();
}

std::optional<SteadyTime> Shaper::GetNextTime() const {
  if (runs_.empty()) return std::nullopt;
  return runs_.front().due;
}

SteadyTime::duration Shaper::GetTransmissionTime(size_t bytes) const {
  if (shape_.bits_per_second == 0) return {};
  const double seconds = 8.0 * static_cast<double>(bytes) /
                         static_cast<double>(shape_.bits_per_second);
  return std::chrono::duration_cast<SteadyTime::duration>(
      std::chrono::duration<double>(seconds));
}

}  // namespace vantrel
