#pragma once

#include <stddef.h>
#include <stdint.h>

#include <asio/io_context.hpp>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "companion/device_link.h"
#include "companion/figures.h"
#include "companion/metrics_server.h"
#include "companion/options.h"
#include "support/metrics_file.h"
#include "support/state_record.h"
#include "support/status_server.h"
#include "support/steady_time.h"

namespace vantrel {

// Tells whoever has asked for it what the devices and their applications use:
// the readers of the status socket, those of the metrics file, scrapers. Looks
// only while somebody asks; none of them is ever waited for.
class Reporter {
 public:
  // |get_links| has all that are up, and those that only deliver their rest.
  // All of it outlives this.
  Reporter(asio::io_context& loop, const companion_options_t& options,
           std::function<std::vector<const DeviceLink*>()> get_links);
  Reporter(const Reporter&) = delete;
  Reporter& operator=(const Reporter&) = delete;

  // How many it may open for what |options| ask for.
  static size_t CountDescriptors(const companion_options_t& options);

  // Begins. False after a failure, which is logged. |max_links| may be up.
  [[nodiscard]] bool Open(size_t max_links);
  // After a handler of the loop has failed: it may have been ours.
  void GoOn();

  void OnConnected(const DeviceLink& link);
  // |link| is about to be destroyed: what it has used is kept. Until
  // OnRemoved() it would count twice.
  void OnOver(const DeviceLink& link);
  void OnRemoved() { UpdateMetricsFile(); }
  void OnTick();  // once a second while there are links
  void OnStopping() { phase_ = companion_state_t::Phase::kStopping; }
  // At the end of the program: writes what is to be written.
  void Finish();

 private:
  bool OpenStatusSocket();
  bool OpenMetricsServer();
  std::string GetState() const;
  std::string GetMetrics();
  void LookAtAll();
  static Figures::usage_t GetUsage(const DeviceLink& link);
  void UpdateMetricsFile();

  asio::io_context& loop_;
  const companion_options_t& options_;
  const std::function<std::vector<const DeviceLink*>()> get_links_;
  const SteadyTime start_ = GetSteadyTime();
  size_t max_links_ = 0;
  uint64_t links_ever_ = 0;
  uint64_t activity_ = 0;  // at the last tick
  companion_state_t::Phase phase_ = companion_state_t::Phase::kRunning;
  Figures figures_;
  std::optional<StatusServer> status_server_;
  std::optional<MetricsFile> metrics_file_;
  std::optional<MetricsServer> metrics_server_;
};

}  // namespace vantrel
