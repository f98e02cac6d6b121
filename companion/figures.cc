#include "companion/figures.h"

#include <algorithm>

namespace vantrel {
namespace {

// No UID has these numbers.
constexpr int64_t kUnknownOwner = -1;
constexpr int64_t kOther = INT64_MAX;

// What has no place of its own.
constexpr char kOtherName[] = "other";

std::string DescribeUid(int64_t uid) {
  return uid == kUnknownOwner ? "unknown"
         : uid == kOther      ? kOtherName
                              : std::to_string(uid);
}

void AddTraffic(const traffic_t& from, traffic_t* sum) {
  sum->rx_bytes += from.rx_bytes;
  sum->tx_bytes += from.tx_bytes;
}

// Of counters: what is above 2^64 begins at 0 again, which collectors take for
// a restart, and count on.
struct counter_t {
  const char* name;
  const char* help;
  uint64_t application_counts_t::*count;
};

constexpr counter_t kCounters[] = {
    {"vantrel_companion_application_received_bytes_total",
     "Payload that an application has received.",
     &application_counts_t::bytes_to_device},
    {"vantrel_companion_application_sent_bytes_total",
     "Payload that an application has sent.",
     &application_counts_t::bytes_from_device},
    {"vantrel_companion_application_streams_total",
     "TCP connections that an application has opened.",
     &application_counts_t::streams_opened},
    {"vantrel_companion_application_denied_streams_total",
     "TCP connections of an application that a rule has denied.",
     &application_counts_t::streams_denied},
    {"vantrel_companion_application_received_datagrams_total",
     "Datagrams that an application has received.",
     &application_counts_t::datagrams_to_device},
    {"vantrel_companion_application_sent_datagrams_total",
     "Datagrams that an application has sent.",
     &application_counts_t::datagrams_from_device},
    {"vantrel_companion_application_dropped_datagrams_total",
     "Datagrams of an application that were dropped, either way.",
     &application_counts_t::datagrams_dropped},
};

}  // namespace

void Figures::OnConnected(const std::string& device) {
  ++links_ever_;
  ++FindDevice(device).connections;
}

Figures::device_t& Figures::FindDevice(const std::string& name) {
  const auto found = devices_.find(name);
  if (found != devices_.end()) return found->second;
  return devices_[devices_.size() < kMaxDevices ? name : kOtherName];
}

Figures::series_t& Figures::FindSeries(device_t* device,
                                       const Application& application,
                                       SteadyTime now) {
  const auto uid = application.GetUid();
  const int64_t key = uid ? int64_t{*uid} : kUnknownOwner;
  const auto found = device->applications.find(key);
  const bool has_place =
      !uid || found != device->applications.end() ||
      (application_count_ < kMaxApplications &&
       device->applications.size() < kMaxApplicationsOfDevice);
  if (!has_place) return device->applications[kOther];
  if (uid && found == device->applications.end()) ++application_count_;
  series_t& series = device->applications[key];
  const std::string& package = application.GetPackageName();
  const bool may_rename = !series.named || now - *series.named >= kNameTime;
  if (!package.empty() && package != series.package && may_rename) {
    series.package = package;
    series.named = now;
  }
  return series;
}

void Figures::Add(const usage_t& usage, traffic_t device_t::*traffic,
                  application_counts_t series_t::*counts, SteadyTime now) {
  device_t& device = FindDevice(usage.device);
  AddTraffic(usage.link_traffic, &(device.*traffic));
  usage.applications.Each([&](const Application& application) {
    const application_counts_t& used = application.GetCounts();
    vantrel::Add(used, &(FindSeries(&device, application, now).*counts));
  });
  const application_counts_t& forgotten = usage.applications.GetForgotten();
  if (forgotten.bytes_to_device + forgotten.bytes_from_device +
          forgotten.streams_opened + forgotten.streams_denied >
      0) {
    vantrel::Add(forgotten, &(device.applications[kOther].*counts));
  }
}

void Figures::Keep(const usage_t& usage, SteadyTime now) {
  Add(usage, &device_t::kept, &series_t::kept, now);
}

void Figures::BeginLook() {
  for (auto& [name, device] : devices_) {
    device.links = 0;
    device.live = {};
    for (auto& [uid, series] : device.applications) {
      series.live = {};
      series.open_streams = 0;
      series.open_since.reset();
    }
  }
}

void Figures::Look(const usage_t& usage, bool is_up, SteadyTime now) {
  Add(usage, &device_t::live, &series_t::live, now);
  device_t& device = FindDevice(usage.device);
  if (is_up) ++device.links;
  usage.applications.Each([&](const Application& application) {
    const auto since = application.GetOpenSince();
    if (!since) return;
    series_t& series = FindSeries(&device, application, now);
    series.open_streams += application.GetOpenStreamCount();
    series.open_since = std::min(series.open_since.value_or(*since), *since);
  });
}

// Of numbers that only grow: an end and a beginning do not cancel out.
uint64_t Figures::GetActivity() const {
  uint64_t sum = links_ever_;
  for (const auto& [name, device] : devices_) {
    sum += device.connections - device.links + device.kept.rx_bytes +
           device.kept.tx_bytes + device.live.rx_bytes + device.live.tx_bytes;
    for (const auto& [uid, series] : device.applications) {
      application_counts_t counts = series.kept;
      vantrel::Add(series.live, &counts);
      for (const counter_t& counter : kCounters) sum += counts.*counter.count;
      sum += counts.streams_opened - series.open_streams;
    }
  }
  return sum;
}

double Figures::ToUnixTime(SteadyTime time) const {
  return start_time_ + std::chrono::duration<double>(time - start_).count();
}

std::string Figures::Format(size_t max_links) const {
  MetricsText text;
  // The usual name of this, process_start_time_seconds, is that of whoever else
  // hands our file on.
  text.Begin("vantrel_companion_start_time_seconds", "gauge",
             "When the companion has started, in seconds since 1970.");
  text.AddSeconds({}, start_time_);
  text.Begin("vantrel_companion_max_links", "gauge",
             "Links that may be up at the same time.");
  text.Add({}, max_links);
  FormatDevices(&text);
  FormatApplications(&text);
  return text.Get();
}

void Figures::FormatDevices(MetricsText* text) const {
  text->Begin("vantrel_companion_device_links", "gauge",
              "Links of a device that are up.");
  for (const auto& [name, device] : devices_) {
    text->Add({{"device", name}}, device.links);
  }
  text->Begin("vantrel_companion_device_connections_total", "counter",
              "How often a device has connected.");
  for (const auto& [name, device] : devices_) {
    text->Add({{"device", name}}, device.connections);
  }
  text->Begin("vantrel_companion_device_received_bytes_total", "counter",
              "Bytes that links have carried to a device.");
  for (const auto& [name, device] : devices_) {
    text->Add({{"device", name}}, device.kept.rx_bytes + device.live.rx_bytes);
  }
  text->Begin("vantrel_companion_device_sent_bytes_total", "counter",
              "Bytes that links have carried from a device.");
  for (const auto& [name, device] : devices_) {
    text->Add({{"device", name}}, device.kept.tx_bytes + device.live.tx_bytes);
  }
}

void Figures::FormatApplications(MetricsText* text) const {
  for (const counter_t& counter : kCounters) {
    text->Begin(counter.name, "counter", counter.help);
    const auto add = [&counter](const MetricsText::Labels& labels,
                                const series_t& series, MetricsText* out) {
      out->Add(labels, series.kept.*counter.count + series.live.*counter.count);
    };
    AddSamples(add, text);
  }
  text->Begin("vantrel_companion_application_open_streams", "gauge",
              "TCP connections that an application has open.");
  AddSamples([](const MetricsText::Labels& labels, const series_t& series,
                MetricsText* out) { out->Add(labels, series.open_streams); },
             text);
  text->Begin("vantrel_companion_application_oldest_stream_timestamp_seconds",
              "gauge",
              "When the oldest open TCP connection of an application was "
              "opened, in seconds since 1970.");
  AddSamples(
      [this](const MetricsText::Labels& labels, const series_t& series,
             MetricsText* out) {
        if (!series.open_since) return;
        out->AddSeconds(labels, ToUnixTime(*series.open_since));
      },
      text);
}

template <typename AddSample>
void Figures::AddSamples(const AddSample& add, MetricsText* text) const {
  for (const auto& [name, device] : devices_) {
    for (const auto& [uid, series] : device.applications) {
      add({{"device", name},
           {"uid", DescribeUid(uid)},
           {"package", series.package}},
          series, text);
    }
  }
}

}  // namespace vantrel
