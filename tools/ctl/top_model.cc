#include "tools/ctl/top_model.h"

#include <algorithm>
#include <utility>

namespace vantrel {
namespace {

// A report that is so many intervals late says that no more come.
constexpr uint64_t kLateReports = 3;

}  // namespace

void TopModel::Update(const launch_state_t& state) {
  is_connected_ = true;
  state_ = state;
  UpdateApplications(state);
  if (!link_base_) {
    link_base_ = state;
    return;
  }
  const uint64_t time_ms = state.time_ms - link_base_->time_ms;
  if (time_ms < kShortestMs) return;
  history_.push_back(GetRate(link_base_->link_traffic.value_or(traffic_t()),
                             state.link_traffic.value_or(traffic_t()),
                             time_ms));
  if (history_.size() > kMaxHistory) history_.pop_front();
  link_base_ = state;
}

void TopModel::UpdateApplications(const launch_state_t& state) {
  if (!stats_base_) {
    stats_base_ = state;
    return;
  }
  const uint64_t time_ms = state.stats_time_ms - stats_base_->stats_time_ms;
  if (time_ms < kShortestMs) return;
  by_uid_.clear();
  // What was counted before the first report of all is not known by time.
  if (stats_base_->stats_time_ms != 0) {
    for (const auto& [uid, application] : state.by_uid) {
      const auto before = stats_base_->by_uid.find(uid);
      by_uid_[uid] =
          GetRate(before == stats_base_->by_uid.end() ? traffic_t()
                                                      : before->second.traffic,
                  application.traffic, time_ms);
    }
  }
  stats_interval_ms_ = time_ms;
  stats_base_ = state;
}

void TopModel::Disconnect() {
  is_connected_ = false;
  link_base_.reset();
  stats_base_.reset();
  by_uid_.clear();
  streams_.clear();
  dump_.reset();
  dump_time_ms_ = 0;
  if (!history_.empty()) history_.push_back({});
}

void TopModel::SetDump(link_dump_t dump, const StreamOwners& owners) {
  const uint64_t now = state_ ? state_->time_ms : 0;
  const uint64_t time_ms = dump_time_ms_ == 0 ? 0 : now - dump_time_ms_;
  std::map<uint32_t, stream_t> streams;
  for (const auto& stream : dump.streams) {
    stream_t& row = streams[stream.id];
    row = {stream, owners.Find(stream.id), {}};
    const auto before = streams_.find(stream.id);
    // A new stream began since the dump before.
    row.rate = GetRate(
        before == streams_.end() ? traffic_t() : before->second.dump.traffic,
        stream.traffic, time_ms);
  }
  streams_ = std::move(streams);
  dump_ = std::move(dump);
  dump_time_ms_ = now;
}

rate_t TopModel::GetLinkRate() const {
  return history_.empty() || !is_connected_ ? rate_t() : history_.back();
}

bool TopModel::IsStatsRateOld() const {
  return state_->time_ms - state_->stats_time_ms >
         kLateReports *
             std::max<uint64_t>(stats_interval_ms_, kStateIntervalMs);
}

std::vector<TopModel::application_t> TopModel::GetApplications(
    Sort sort) const {
  std::vector<application_t> rows;
  if (!state_) return rows;
  for (const auto& [uid, application] : state_->by_uid) {
    const auto rate = by_uid_.find(uid);
    rows.push_back(
        {uid, application.name,
         rate == by_uid_.end() || IsStatsRateOld() ? rate_t() : rate->second,
         application.traffic});
  }
  std::stable_sort(rows.begin(), rows.end(),
                   [sort](const application_t& a, const application_t& b) {
                     if (sort == Sort::kName) return a.name < b.name;
                     return IsBefore(a.rate, a.total, b.rate, b.total, sort);
                   });
  return rows;
}

std::vector<TopModel::stream_t> TopModel::GetStreams(Sort sort) const {
  std::vector<stream_t> rows;
  for (const auto& [id, stream] : streams_) rows.push_back(stream);
  std::stable_sort(
      rows.begin(), rows.end(), [sort](const stream_t& a, const stream_t& b) {
        if (sort == Sort::kName) return a.owner < b.owner;
        return IsBefore(a.rate, a.dump.traffic, b.rate, b.dump.traffic, sort);
      });
  return rows;
}

}  // namespace vantrel
