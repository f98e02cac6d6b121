#include "companion/state_report.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "companion/application.h"
#include "companion/remote_stream.h"

namespace vantrel {
namespace {

uint64_t GetTotal(const Application* application) {
  const application_counts_t& counts = application->GetCounts();
  return counts.bytes_to_device + counts.bytes_from_device;
}

uint64_t GetTotal(const RemoteStream* stream) {
  return stream->GetBytesToDevice() + stream->GetBytesFromDevice();
}

bool IsUsed(const Application& application) {
  const application_counts_t& counts = application.GetCounts();
  return GetTotal(&application) + counts.streams_opened +
             counts.streams_denied + counts.datagrams_to_device +
             counts.datagrams_from_device + counts.datagrams_dropped >
         0;
}

// What one link has to tell.
struct parts_t {
  std::vector<const Application*> applications;
  std::vector<const RemoteStream*> streams;
};

parts_t FindParts(const DeviceLink& link) {
  parts_t parts;
  link.GetApplications().Each([&parts](const Application& application) {
    if (IsUsed(application)) parts.applications.push_back(&application);
  });
  link.EachStream([&parts](const RemoteStream& stream) {
    parts.streams.push_back(&stream);
  });
  return parts;
}

// Leaves |count| of |all|, those that have moved most.
template <typename Part>
void KeepMost(std::vector<const Part*>* all, size_t count) {
  if (all->size() <= count) return;
  std::nth_element(
      all->begin(), all->begin() + static_cast<ptrdiff_t>(count), all->end(),
      [](const Part* a, const Part* b) { return GetTotal(a) > GetTotal(b); });
  all->resize(count);
}

companion_state_t::application_t Tell(const Application& application,
                                      SteadyTime now) {
  const application_counts_t& counts = application.GetCounts();
  companion_state_t::application_t told;
  told.uid = application.GetUid();
  told.name = application.GetPackageName();
  told.traffic = {counts.bytes_to_device, counts.bytes_from_device};
  told.streams_opened = counts.streams_opened;
  told.streams_open = application.GetOpenStreamCount();
  const auto since = application.GetOpenSince();
  told.oldest_stream_ms = since ? ToMs(now - *since) : 0;
  told.streams_denied = counts.streams_denied;
  told.rx_datagrams = counts.datagrams_to_device;
  told.tx_datagrams = counts.datagrams_from_device;
  told.dropped_datagrams = counts.datagrams_dropped;
  return told;
}

// How many streams were told.
size_t TellParts(const parts_t& parts, SteadyTime now,
                 companion_state_t::device_t* device) {
  std::unordered_map<const Application*, size_t> places;
  for (const Application* const application : parts.applications) {
    places.emplace(application, device->applications.size());
    device->applications.push_back(Tell(*application, now));
  }
  size_t count = 0;
  for (const RemoteStream* const stream : parts.streams) {
    const auto place = places.find(&stream->GetApplication());
    if (place == places.end()) continue;
    device->applications[place->second].streams.push_back(
        {stream->GetId(),
         stream->GetRemote().ToString(),
         {stream->GetBytesToDevice(), stream->GetBytesFromDevice()},
         ToMs(now - stream->GetBegin())});
    ++count;
  }
  return count;
}

template <typename Parts>
std::vector<size_t> CountEach(const std::vector<parts_t>& all, Parts which) {
  std::vector<size_t> counts;
  for (const parts_t& parts : all) counts.push_back((parts.*which).size());
  return counts;
}

}  // namespace

std::vector<size_t> ShareOut(const std::vector<size_t>& wanted, size_t room) {
  std::vector<size_t> sorted = wanted;
  std::sort(sorted.begin(), sorted.end());
  size_t share = SIZE_MAX;
  for (size_t i = 0; i < sorted.size(); ++i) {
    const size_t left = room / (sorted.size() - i);
    if (sorted[i] > left) {
      share = left;
      break;
    }
    room -= sorted[i];
  }
  std::vector<size_t> shares;
  for (const size_t one : wanted) shares.push_back(std::min(one, share));
  return shares;
}

companion_state_t TellState(const std::vector<const DeviceLink*>& links,
                            SteadyTime now) {
  companion_state_t state;
  const size_t told = std::min(links.size(), kMaxToldDevices);
  state.left_out.devices = links.size() - told;
  std::vector<parts_t> all;
  for (size_t i = 0; i < told; ++i) all.push_back(FindParts(*links[i]));
  const auto applications =
      ShareOut(CountEach(all, &parts_t::applications), kMaxToldApplications);
  const auto streams =
      ShareOut(CountEach(all, &parts_t::streams), kMaxToldStreams);
  for (size_t i = 0; i < told; ++i) {
    parts_t& parts = all[i];
    state.left_out.applications += parts.applications.size() - applications[i];
    state.left_out.streams += parts.streams.size();
    KeepMost(&parts.applications, applications[i]);
    KeepMost(&parts.streams, streams[i]);
    state.devices.push_back(links[i]->Describe(now));
    state.left_out.streams -= TellParts(parts, now, &state.devices.back());
  }
  return state;
}

}  // namespace vantrel
