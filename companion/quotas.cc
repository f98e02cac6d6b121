#include "companion/quotas.h"

#include <algorithm>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "support/json_number.h"

namespace vantrel {
namespace {

using json = nlohmann::ordered_json;  // the members as we name them

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
  auto before = std::exchange(quotas_, {});
  for (const quota_t& quota : quotas) {
    kept_t& kept = quotas_[quota.name];
    const auto found = before.find(quota.name);
    if (found != before.end() && found->second.quota.scope == quota.scope &&
        found->second.quota.period == quota.period) {
      kept = std::move(found->second);
    }
    kept.quota = quota;
    for (const auto& entry : kept.counts) entry.second->quota_ = quota;
  }
}

std::shared_ptr<QuotaCount> Quotas::Get(const quota_t& quota,
                                        const std::string& device,
                                        uint32_t uid) {
  kept_t& kept = quotas_.at(quota.name);
  const Whose everybody("", kNobodyUid);
  const Whose whose(quota.scope == Scope::kAll ? "" : device,
                    quota.scope == Scope::kApplication ? uid : kNobodyUid);
  auto count = FindOrMake(&kept, whose);
  if (count == nullptr) count = FindOrMake(&kept, everybody);
  return count;
}

std::shared_ptr<QuotaCount> Quotas::FindOrMake(kept_t* kept,
                                               const Whose& whose) {
  const auto found = kept->counts.find(whose);
  if (found != kept->counts.end()) return found->second;
  if (kept->counts.size() >= kMaxCounts) ForgetPast(kept);
  const bool is_common = whose.first.empty();
  if (kept->counts.size() >= kMaxCounts && !is_common) return nullptr;
  auto count = std::make_shared<QuotaCount>(*this, kept->quota);
  kept->counts.emplace(whose, count);
  return count;
}

// Nobody uses them now, and whoever does again begins anew.
void Quotas::ForgetPast(kept_t* kept) {
  const uint32_t now = GetPeriod(kept->quota.period);
  if (std::exchange(kept->tidied, now) == now) return;
  for (auto next = kept->counts.begin(); next != kept->counts.end();) {
    const auto entry = next++;
    if (entry->second.use_count() == 1 && entry->second->period_ < now) {
      kept->counts.erase(entry);
    }
  }
}

std::string Quotas::ToJson() const {
  json counts = json::array();
  for (const auto& [name, kept] : quotas_) {
    for (const auto& [whose, count] : kept.counts) {
      if (count->bytes_ == 0) continue;
      counts.push_back({{"quota", name},
                        {"device", whose.first},
                        {"uid", whose.second},
                        {"period", count->period_},
                        {"bytes", count->bytes_}});
    }
  }
  const json all = {{"version", kVersion}, {"counts", std::move(counts)}};
  // A path in the name of a device may be no UTF-8.
  return all.dump(1, ' ', false, json::error_handler_t::replace) + "\n";
}

bool Quotas::TakeJson(const std::string& text) {
  const auto all = json::parse(text, nullptr, false);
  if (!all.is_object() || all.value("version", json()) != kVersion) {
    return false;
  }
  const auto counts = all.value("counts", json());
  bool is_sound = counts.is_array();
  for (const auto& one : counts) {
    const auto get = [&one](const char* name) {
      return one.is_object() ? one.value(name, json()) : json();
    };
    if (!get("quota").is_string() || !get("device").is_string() ||
        !IsInteger<uint32_t>(get("uid")) ||
        !IsInteger<uint32_t>(get("period")) ||
        !IsInteger<uint64_t>(get("bytes"))) {
      is_sound = false;
      continue;
    }
    const auto quota = quotas_.find(get("quota").get<std::string>());
    if (quota == quotas_.end()) continue;
    const auto count =
        Get(quota->second.quota, get("device").get<std::string>(),
            get("uid").get<uint32_t>());
    count->period_ = get("period").get<uint32_t>();
    count->bytes_ = get("bytes").get<uint64_t>();
  }
  return is_sound;
}

}  // namespace vantrel
