// How fast something moves, and what of it is shown first: for every model of
// vantrelctl top.
#pragma once

#include <stdint.h>

#include <tuple>

#include "support/state_record.h"

namespace vantrel {

// In bytes per second, from the device's point of view as traffic_t.
struct rate_t {
  double rx = 0;
  double tx = 0;
};

// From two times that are closer nothing is computed: a rate would be noise.
constexpr uint64_t kShortestMs = kStateIntervalMs / 2;

// Rates that are kept, one for each state.
constexpr size_t kMaxHistory = 512;

enum class TopSort { kDown, kUp, kTotal, kName };

inline double GetRate(uint64_t before, uint64_t now, uint64_t time_ms) {
  if (now < before || time_ms == 0) return 0;  // counted from zero again
  return static_cast<double>(now - before) * 1e3 / static_cast<double>(time_ms);
}

inline rate_t GetRate(const traffic_t& before, const traffic_t& now,
                      uint64_t time_ms) {
  return {GetRate(before.rx_bytes, now.rx_bytes, time_ms),
          GetRate(before.tx_bytes, now.tx_bytes, time_ms)};
}

// Whether what moves at the rate |a| is shown before |b|, by anything but
// names.
inline bool IsBefore(const rate_t& a, const traffic_t& a_total, const rate_t& b,
                     const traffic_t& b_total, TopSort sort) {
  const auto sum = [](const traffic_t& t) { return t.rx_bytes + t.tx_bytes; };
  switch (sort) {
    case TopSort::kDown:
      return std::make_tuple(a.rx, sum(a_total)) >
             std::make_tuple(b.rx, sum(b_total));
    case TopSort::kUp:
      return std::make_tuple(a.tx, sum(a_total)) >
             std::make_tuple(b.tx, sum(b_total));
    default:
      return sum(a_total) > sum(b_total);
  }
}

}  // namespace vantrel
