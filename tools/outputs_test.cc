// What the programs leave behind in files, byte by byte.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "tools/metrics.h"
#include "tools/pcapng_writer.h"

namespace vantrel {
namespace {

using namespace std::string_literals;

std::string ReadFile(const std::string& path) {
  std::ifstream file(path);
  std::ostringstream text;
  text << file.rdbuf();
  return text.str();
}

class OutputsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/outputs_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    directory_ = name;
  }
  void TearDown() override {
    unlink((directory_ + "/file").c_str());
    rmdir(directory_.c_str());
  }
  std::string directory_;
};

TEST_F(OutputsTest, CaptureHasLinksPacketsTimesAndDirections) {
  PcapngWriter writer(directory_ + "/file");
  writer.BeginLink("x");
  const PcapngWriter::WallTime time{std::chrono::microseconds(0x100000002)};
  writer.WriteBytes(PcapngWriter::kToCompanion, "abcde", time);
  writer.BeginLink("yyyy");
  writer.WriteBytes(PcapngWriter::kFromCompanion, "", time);
  EXPECT_EQ(
      "\x0A\x0D\x0D\x0A\x34\0\0\0\x4D\x3C\x2B\x1A\1\0\0\0"
      "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\4\0\x0E\0vantrel-launch\0\0\0\0\0\0"
      "\x34\0\0\0"
      "\1\0\0\0\x2C\0\0\0\x93\0\0\0\0\0\0\0\2\0\6\0link 1\0\0"
      "\3\0\1\0x\0\0\0\0\0\0\0\x2C\0\0\0"
      "\6\0\0\0\x34\0\0\0\0\0\0\0\1\0\0\0\2\0\0\0\5\0\0\0\5\0\0\0"
      "abcde\0\0\0\2\0\4\0\2\0\0\0\0\0\0\0\x34\0\0\0"
      "\1\0\0\0\x2C\0\0\0\x93\0\0\0\0\0\0\0\2\0\6\0link 2\0\0"
      "\3\0\4\0yyyy\0\0\0\0\x2C\0\0\0"
      "\6\0\0\0\x2C\0\0\0\1\0\0\0\1\0\0\0\2\0\0\0\0\0\0\0\0\0\0\0"
      "\2\0\4\0\1\0\0\0\0\0\0\0\x2C\0\0\0"s,
      ReadFile(directory_ + "/file"));
}

TEST_F(OutputsTest, MetricsAddUpOverReportsAndReplaceTheFileAtOnce) {
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

  const std::string path = directory_ + "/file";
  WriteFileAtomically(path, "old and long");
  std::ifstream reader(path);
  WriteFileAtomically(path, "new");
  std::string old_text;
  std::getline(reader, old_text);
  EXPECT_EQ("old and long", old_text);
  EXPECT_EQ("new", ReadFile(path));
  EXPECT_THROW(WriteFileAtomically(directory_ + "/none/file", "x"),
               std::system_error);
}

}  // namespace
}  // namespace vantrel
