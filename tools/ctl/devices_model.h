#pragma once

#include <stdint.h>

#include <array>
#include <deque>
#include <map>
#include <optional>
#include <vector>

#include "support/companion_state.h"
#include "tools/ctl/top_rates.h"

namespace vantrel {

// What vantrelctl top shows of a companion: its last state, and rates from the
// one before it. Time is the companion's, so that a late reader computes the
// same.
class DevicesModel {
 public:
  // Rows; what they point to is the state's, until the next Update().
  struct stream_t {
    const companion_state_t::stream_t* stream;
    rate_t rate;
  };
  struct application_t {
    const companion_state_t::application_t* application;
    rate_t rate;
    std::vector<stream_t> streams;
  };
  struct device_t {
    const companion_state_t::device_t* device;
    rate_t rate;  // of its link
    std::vector<application_t> applications;
  };

  // The companion said so. A state that comes soon after the one before gives
  // no new rates.
  void Update(const companion_state_t& state);
  // The companion has gone: a next one counts from zero.
  void Disconnect();

  bool IsConnected() const { return is_connected_; }
  // The last state, also of a companion that has gone; empty until the first.
  const std::optional<companion_state_t>& GetState() const { return state_; }
  // Of all links together.
  rate_t GetLinkRate() const;
  traffic_t GetLinkTraffic() const;
  // Those rates, the latest last.
  const std::deque<rate_t>& GetHistory() const { return history_; }
  // At each level what moves most first, or by name.
  std::vector<device_t> GetDevices(TopSort sort) const;

 private:
  // Of a device, an application or a stream.
  using Key = std::array<int64_t, 3>;
  using Uid = std::optional<uint32_t>;
  static Key MakeKey(uint32_t device);
  static Key MakeKey(uint32_t device, const Uid& uid);
  static Key MakeKey(uint32_t device, const Uid& uid, uint32_t stream);

  // Takes what |key| has moved so far, |time_ms| after the base. What is not in
  // the base is older than that or not, by its |age_ms|.
  void Take(const Key& key, const traffic_t& traffic, uint64_t time_ms,
            uint64_t age_ms);
  rate_t FindRate(const Key& key) const;
  application_t MakeApplication(uint32_t device,
                                const companion_state_t::application_t& from,
                                TopSort sort) const;

  std::optional<companion_state_t> state_;
  bool is_connected_ = false;
  // Where the next rates are measured from, and what had moved then.
  std::optional<uint64_t> base_time_ms_;
  std::map<Key, traffic_t> base_;
  std::map<Key, traffic_t> next_base_;
  std::map<Key, rate_t> rates_;
  std::deque<rate_t> history_;
};

}  // namespace vantrel
