#pragma once

#include <stdint.h>

#include <map>
#include <string>

#include "tools/launch/status_reader.h"
#include "tools/package_names.h"

namespace vantrel {

// Running totals of what the daemon reported, over all its runs: each report
// has only what is new, and the daemon forgets it.
class Metrics {
 public:
  void CountStart() { ++starts_; }
  void SetRunning(bool is_running) { is_running_ = is_running; }
  void Update(const status_record_t& record);
  void AddLinkBytes(uint64_t received, uint64_t sent);

  // The text format that Prometheus collects.
  std::string Format(const PackageNames& names) const;

 private:
  struct totals_t {
    uint64_t rx_bytes = 0;
    uint64_t tx_bytes = 0;
  };
  std::string FormatUids(const PackageNames& names) const;
  std::string FormatNetwork() const;

  std::map<uint32_t, totals_t> by_uid_;
  totals_t link_;
  uint64_t starts_ = 0;
  bool is_running_ = false;
  bool has_network_ = false;
  network_state_t network_;
};

// |value| as it stands between the quotes of a label.
std::string EscapeLabelValue(const std::string& value);

// Replaces |path| in one step: a reader, which may be anybody, sees the old
// text or the new one. A link at |path| is replaced, not followed.
// Throws std::system_error, with |path| as it was.
void WriteFileAtomically(const std::string& path, const std::string& text);

}  // namespace vantrel
