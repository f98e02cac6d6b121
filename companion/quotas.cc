#include "companion/quotas.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

namespace vantrel {
namespace {

constexpr int kVersion = 1;  // of the text

// The year, the month and the day in decimal digits.
uint32_t ToDay(time_t time) {
  tm local = {};
  if (localtime_r(&time, &local) == nullptr) return 0;
  return static_cast<uint32_t>((local.tm_year + 1900) * 10000 +
                               (local.tm_mon + 1) * 100 + local.tm_mday);
}

}  // namespace

void QuotaCount::Renew() {
  const uint32_t now = quotas_.GetPeriod(quota_.period);
  if (now > period_) bytes_ = 0;
  period_ = now;
}

void QuotaCount::Add(size_t bytes) {
  const bool was_used_up = IsUsedUp();
  const uint64_t room = std::numeric_limits<uint64_t>::max() - bytes_;
  bytes_ += std::min<uint64_t>(bytes, room);
  quotas_.callbacks_.on_changed();
  if (!was_used_up && IsUsedUp()) quotas_.callbacks_.on_used_up();
}

bool QuotaCount::IsUsedUp() {
  Renew();
  return bytes_ >= quota_.bytes;
}

Quotas::Quotas(callbacks_t callbacks) : callbacks_(std::move(callbacks)) {}

uint32_t Quotas::GetPeriod(Period period) {
  const time_t now = callbacks_.get_time();
  if (now != std::exchange(second_, now)) day_ = ToDay(now);
  return period == Period::kDay ? day_ : day_ / 100;
}

void Quotas::Set(const std::vector<quota_t>& quotas) {
  quotas_.clear();
  for (const quota_t& quota : quotas) quotas_.emplace(quota.name, quota);
  for (auto next = counts_.begin(); next != counts_.end();) {
    const auto entry = next++;
    const auto found = quotas_.find(std::get<0>(entry->first));
    QuotaCount& count = *entry->second;
    if (found == quotas_.end() || found->second.scope != count.quota_.scope ||
        found->second.period != count.quota_.period) {
      counts_.erase(entry);
    } else {
      count.quota_ = found->second;
    }
  }
}

std::shared_ptr<QuotaCount> Quotas::Get(const quota_t& quota,
                                        const std::string& device,
                                        uint32_t uid) {
  switch (quota.scope) {
    case Scope::kAll:
      return FindOrMake(quota, Key(quota.name, "", kNobodyUid));
    case Scope::kDevice:
      return FindOrMake(quota, Key(quota.name, device, kNobodyUid));
    case Scope::kApplication:
      return FindOrMake(quota, Key(quota.name, device, uid));
  }
  return nullptr;
}

std::shared_ptr<QuotaCount> Quotas::FindOrMake(const quota_t& quota,
                                               const Key& key) {
  const auto found = counts_.find(key);
  if (found != counts_.end()) return found->second;
  if (CountOf(quota.name) >= kMaxCounts) ForgetPast(quota.name);
  const Key common(quota.name, "", kNobodyUid);
  if (CountOf(quota.name) >= kMaxCounts && key != common) {
    return FindOrMake(quota, common);
  }
  auto count = std::make_shared<QuotaCount>(*this, quota);
  counts_.emplace(key, count);
  return count;
}

size_t Quotas::CountOf(const std::string& name) const {
  const auto first = counts_.lower_bound(Key(name, "", 0));
  const auto last = counts_.upper_bound(Key(name + '\0', "", 0));
  return static_cast<size_t>(std::distance(first, last));
}

// Nobody uses them now, and whoever does again begins anew.
void Quotas::ForgetPast(const std::string& name) {
  for (auto next = counts_.lower_bound(Key(name, "", 0));
       next != counts_.end() && std::get<0>(next->first) == name;) {
    const auto entry = next++;
    const QuotaCount& count = *entry->second;
    if (entry->second.use_count() == 1 &&
        count.period_ != GetPeriod(count.quota_.period)) {
      counts_.erase(entry);
    }
  }
}

std::string Quotas::ToJson() const {
  nlohmann::ordered_json counts = nlohmann::ordered_json::array();
  for (const auto& [key, count] : counts_) {
    if (count->bytes_ == 0) continue;
    counts.push_back({{"quota", std::get<0>(key)},
                      {"device", std::get<1>(key)},
                      {"uid", std::get<2>(key)},
                      {"period", count->period_},
                      {"bytes", count->bytes_}});
  }
  const nlohmann::ordered_json all = {{"version", kVersion},
                                      {"counts", std::move(counts)}};
  // A path in the name of a device may be no UTF-8.
  return all.dump(1, ' ', false, nlohmann::json::error_handler_t::replace) +
         "\n";
}

bool Quotas::TakeJson(const std::string& text) {
  const auto all = nlohmann::json::parse(text, nullptr, false);
  if (!all.is_object() || all.value("version", nlohmann::json()) != kVersion) {
    return false;
  }
  const auto counts = all.value("counts", nlohmann::json());
  bool is_sound = counts.is_array();
  for (const auto& one : counts) {
    const auto get = [&one](const char* name) {
      return one.is_object() ? one.value(name, nlohmann::json())
                             : nlohmann::json();
    };
    if (!get("quota").is_string() || !get("device").is_string() ||
        !get("uid").is_number_unsigned() ||
        !get("period").is_number_unsigned() ||
        !get("bytes").is_number_unsigned()) {
      is_sound = false;
      continue;
    }
    const auto quota = quotas_.find(get("quota").get<std::string>());
    if (quota == quotas_.end()) continue;
    const auto count = Get(quota->second, get("device").get<std::string>(),
                           get("uid").get<uint32_t>());
    count->period_ = get("period").get<uint32_t>();
    count->bytes_ = get("bytes").get<uint64_t>();
  }
  return is_sound;
}

}  // namespace vantrel
