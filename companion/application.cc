#include "companion/application.h"

#include <assert.h>

#include <algorithm>
#include <utility>

namespace vantrel {

void Add(const application_counts_t& counts, application_counts_t* sum) {
  sum->bytes_to_device += counts.bytes_to_device;
  sum->bytes_from_device += counts.bytes_from_device;
  sum->streams_opened += counts.streams_opened;
  sum->streams_denied += counts.streams_denied;
  sum->datagrams_to_device += counts.datagrams_to_device;
  sum->datagrams_from_device += counts.datagrams_from_device;
  sum->datagrams_dropped += counts.datagrams_dropped;
}

Application::Stream::Stream(Application& application, SteadyTime begin)
    : application_(application), begin_(begin) {
  application_.open_streams_.Append(this);
  ++application_.open_stream_count_;
  ++application_.stream_count_;
  ++application_.counts_.streams_opened;
}

Application::Stream::~Stream() {
  Close();
  --application_.stream_count_;
}

void Application::Stream::Close() {
  if (!IsListed()) return;
  Leave();
  --application_.open_stream_count_;
}

Application::~Application() { assert(stream_count_ == 0); }

bool Application::SetPackageName(std::string name) {
  name.resize(std::min(name.size(), kMaxNameBytes));
  const bool is_first = !std::exchange(is_name_told_, true);
  if (name.empty() || name == package_name_) return is_first;
  package_name_ = std::move(name);
  return true;
}

std::string Application::Describe() const {
  if (!uid_) return "uid unknown";
  return "uid " + std::to_string(*uid_) +
         (package_name_.empty() ? "" : ", " + package_name_);
}

Application::groups_t& Application::GetGroups(Priority priority) {
  auto& groups = groups_[static_cast<size_t>(priority)];
  if (groups == nullptr) groups = std::make_unique<groups_t>(priority);
  return *groups;
}

std::optional<SteadyTime> Application::GetOpenSince() const {
  if (open_streams_.IsEmpty()) return std::nullopt;
  return open_streams_.GetFirst().GetBegin();
}

}  // namespace vantrel
