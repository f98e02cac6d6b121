#pragma once

#include <stddef.h>
#include <stdint.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "companion/application.h"
#include "companion/applications.h"
#include "support/metrics_text.h"
#include "support/state_record.h"
#include "support/steady_time.h"

namespace vantrel {

// The totals of all devices and their applications since the program began, for
// those who collect metrics: what ended links have used, and what those use
// that are up. A device counts on when it comes back.
//
// Collectors keep each name that they ever saw. So a device that invents
// applications, or names for them, gets a bounded number of series: what has no
// place counts as "other".
class Figures {
 public:
  static constexpr size_t kMaxDevices = 128;
  static constexpr size_t kMaxApplications = 2048;  // of all devices together
  static constexpr size_t kMaxApplicationsOfDevice = 256;
  // How long an application keeps its name in the figures, whatever its device
  // calls it meanwhile.
  static constexpr std::chrono::hours kNameTime{1};

  // |start| and |start_time|, in seconds since 1970, are the same moment:
  // moments are told by this, so that none moves when the clock is set.
  Figures(SteadyTime start, double start_time)
      : start_(start), start_time_(start_time) {}
  Figures(const Figures&) = delete;
  Figures& operator=(const Figures&) = delete;

  // One link.
  struct usage_t {
    const std::string& device;  // link_peer_t::device
    traffic_t link_traffic;     // all of its bytes
    const Applications& applications;
  };

  // A new link of |device|.
  void OnConnected(const std::string& device);
  // The link is over: its figures stay.
  void Keep(const usage_t& usage, SteadyTime now);

  // A look at all links: these calls in this order.
  void BeginLook();
  void Look(const usage_t& usage, bool is_up, SteadyTime now);
  // A number that is higher after a look when something has been counted since
  // the look before.
  uint64_t GetActivity() const;
  // All of it as text; |max_links| is what the companion serves at most.
  std::string Format(size_t max_links) const;

 private:
  struct series_t {
    std::string package;
    std::optional<SteadyTime> named;
    application_counts_t kept;  // of links that are over
    application_counts_t live;
    uint64_t open_streams = 0;
    std::optional<SteadyTime> open_since;
  };
  struct device_t {
    uint64_t connections = 0;
    uint64_t links = 0;  // that are up
    traffic_t kept;
    traffic_t live;
    // By UID, kUnknownOwner or kOther.
    std::map<int64_t, series_t> applications;
  };
  using Devices = std::map<std::string, device_t>;

  device_t& FindDevice(const std::string& name);
  series_t& FindSeries(device_t* device, const Application& application,
                       SteadyTime now);
  // Adds what |usage| has to the sums that |traffic| and |counts| name.
  void Add(const usage_t& usage, traffic_t device_t::*traffic,
           application_counts_t series_t::*counts, SteadyTime now);

  double ToUnixTime(SteadyTime time) const;
  void FormatDevices(MetricsText* text) const;
  void FormatApplications(MetricsText* text) const;
  // One sample of each application, by |add|(labels, series, text).
  template <typename AddSample>
  void AddSamples(const AddSample& add, MetricsText* text) const;

  const SteadyTime start_;
  const double start_time_;
  uint64_t links_ever_ = 0;
  Devices devices_;
  size_t application_count_ = 0;
};

}  // namespace vantrel
