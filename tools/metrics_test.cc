#include "tools/metrics.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

namespace vantrel {
namespace {

TEST(Metrics, AddUpOverReportsAndReplaceTheFileAtOnce) {
  std::istringstream list("odd\"\\name 8 0\n");
  const PackageNames names(list);
  Metrics metrics;
  status_record_t record;
  record.kind = status_record_t::kTransferStats;
  auto* const usage = record.stats.add_uid_transfer_stats();
  usage->set_uid(8);
  usage->set_rx_bytes(0xFFFFFFFF);
  usage->set_tx_bytes(1);
  metrics.Update(record);
  metrics.Update(record);
  record.kind = status_record_t::kNetworkState;
  record.network = {-7, true};
  metrics.Update(record);
  metrics.CountStart();
  metrics.AddLinkBytes(3, 4);
  std::string samples;
  std::istringstream lines(metrics.Format(names));
  for (std::string line; std::getline(lines, line);) {
    if (line[0] != '#') samples += line + "\n";
  }
  EXPECT_EQ(
      "vantrel_up 0\nvantrel_starts_total 1\n"
      "vantrel_link_received_bytes_total 3\nvantrel_link_sent_bytes_total 4\n"
      "vantrel_network_metered{network=\"-7\"} 1\n"
      "vantrel_uid_received_bytes_total{uid=\"8\",package=\"odd\\\"\\\\name\"} "
      "8589934590\n"
      "vantrel_uid_sent_bytes_total{uid=\"8\",package=\"odd\\\"\\\\name\"} 2\n",
      samples);

  const std::string path = ::testing::TempDir() + "metrics_test";
  WriteFileAtomically(path, "old and long");
  std::ifstream reader(path);
  WriteFileAtomically(path, "new");
  std::string old_text, text;
  std::getline(reader, old_text);
  EXPECT_EQ("old and long", old_text);
  std::getline(std::ifstream(path), text);
  EXPECT_EQ("new", text);
  unlink(path.c_str());
}

}  // namespace
}  // namespace vantrel
