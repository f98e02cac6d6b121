#include "tools/ctl/devices_model.h"

#include <algorithm>
#include <utility>

namespace vantrel {
namespace {

// No UID and no stream has these numbers.
constexpr int64_t kUnknownOwner = -1;
constexpr int64_t kAll = -2;

// By what is asked for, of rows that have a rate.
template <typename Row, typename GetName, typename GetTraffic>
void SortRows(std::vector<Row>* rows, TopSort sort, const GetName& get_name,
              const GetTraffic& get_traffic) {
  std::stable_sort(rows->begin(), rows->end(), [&](const Row& a, const Row& b) {
    if (sort == TopSort::kName) return get_name(a) < get_name(b);
    return IsBefore(a.rate, get_traffic(a), b.rate, get_traffic(b), sort);
  });
}

}  // namespace

DevicesModel::Key DevicesModel::MakeKey(uint32_t device) {
  return {device, kAll, kAll};
}

DevicesModel::Key DevicesModel::MakeKey(uint32_t device, const Uid& uid) {
  return {device, uid ? int64_t{*uid} : kUnknownOwner, kAll};
}

DevicesModel::Key DevicesModel::MakeKey(uint32_t device, const Uid& uid,
                                        uint32_t stream) {
  return {device, uid ? int64_t{*uid} : kUnknownOwner, stream};
}

void DevicesModel::Update(const companion_state_t& state) {
  is_connected_ = true;
  state_ = state;
  const uint64_t time_ms = state.time_ms - base_time_ms_.value_or(0);
  if (base_time_ms_ && time_ms < kShortestMs) return;
  rates_.clear();
  next_base_.clear();
  for (const auto& device : state.devices) {
    Take(MakeKey(device.id), device.link_traffic, time_ms, device.uptime_ms);
    for (const auto& application : device.applications) {
      Take(MakeKey(device.id, application.uid), application.traffic, time_ms,
           device.uptime_ms);
      for (const auto& stream : application.streams) {
        Take(MakeKey(device.id, application.uid, stream.id), stream.traffic,
             time_ms, stream.age_ms);
      }
    }
  }
  base_.swap(next_base_);
  if (std::exchange(base_time_ms_, state.time_ms)) {
    history_.push_back(GetLinkRate());
    if (history_.size() > kMaxHistory) history_.pop_front();
  }
}

void DevicesModel::Take(const Key& key, const traffic_t& traffic,
                        uint64_t time_ms, uint64_t age_ms) {
  next_base_[key] = traffic;
  if (!base_time_ms_) return;
  const auto before = base_.find(key);
  if (before != base_.end()) {
    rates_[key] = GetRate(before->second, traffic, time_ms);
  } else if (age_ms <= time_ms) {
    rates_[key] = GetRate(traffic_t(), traffic, time_ms);
  }
}

void DevicesModel::Disconnect() {
  is_connected_ = false;
  base_time_ms_.reset();
  base_.clear();
  rates_.clear();
  if (!history_.empty()) history_.push_back({});
}

rate_t DevicesModel::FindRate(const Key& key) const {
  const auto found = rates_.find(key);
  return found == rates_.end() ? rate_t() : found->second;
}

rate_t DevicesModel::GetLinkRate() const {
  rate_t sum;
  if (!state_) return sum;
  for (const auto& device : state_->devices) {
    const rate_t rate = FindRate(MakeKey(device.id));
    sum.rx += rate.rx;
    sum.tx += rate.tx;
  }
  return sum;
}

traffic_t DevicesModel::GetLinkTraffic() const {
  traffic_t sum;
  if (!state_) return sum;
  for (const auto& device : state_->devices) {
    sum.rx_bytes += device.link_traffic.rx_bytes;
    sum.tx_bytes += device.link_traffic.tx_bytes;
  }
  return sum;
}

std::vector<DevicesModel::device_t> DevicesModel::GetDevices(
    TopSort sort) const {
  std::vector<device_t> rows;
  if (!state_) return rows;
  for (const auto& device : state_->devices) {
    device_t row = {&device, FindRate(MakeKey(device.id)), {}};
    for (const auto& application : device.applications) {
      row.applications.push_back(MakeApplication(device.id, application, sort));
    }
    SortRows(
        &row.applications, sort,
        [](const application_t& a) { return a.application->name; },
        [](const application_t& a) { return a.application->traffic; });
    rows.push_back(std::move(row));
  }
  SortRows(
      &rows, sort, [](const device_t& d) { return d.device->link; },
      [](const device_t& d) { return d.device->link_traffic; });
  return rows;
}

DevicesModel::application_t DevicesModel::MakeApplication(
    uint32_t device, const companion_state_t::application_t& from,
    TopSort sort) const {
  application_t row = {&from, FindRate(MakeKey(device, from.uid)), {}};
  for (const auto& stream : from.streams) {
    row.streams.push_back(
        {&stream, FindRate(MakeKey(device, from.uid, stream.id))});
  }
  SortRows(
      &row.streams, sort, [](const stream_t& s) { return s.stream->remote; },
      [](const stream_t& s) { return s.stream->traffic; });
  return row;
}

}  // namespace vantrel
