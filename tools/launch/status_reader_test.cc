#include "tools/launch/status_reader.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "platform/linux/device_files_testing.h"
#include "support/metrics_text.h"
#include "tools/launch/metrics.h"
#include "tools/launch/status_text.h"
#include "tools/package_names.h"

namespace vantrel {
namespace {

using namespace std::string_literals;

const std::string kStarted = "\0\0\0\0"s;

// What a channel brings, in words, then the problem and the cut record.
std::string Read(const std::string& bytes, size_t piece_bytes) {
  std::istringstream list(
      "com.example.browser 10123 0 /data/x\nbad line\n"
      "com.example.helper 10123 0 /data/y\n");
  const PackageNames names(list);
  StatusReader reader;
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += piece_bytes) {
    const std::string piece = bytes.substr(at, piece_bytes);
    reader.Append(piece.data(), piece.size());
    status_record_t record;
    while (reader.Next(&record)) {
      text += RecordToText(record, names) + RecordToJson(record, names);
    }
  }
  if (!reader.GetProblem().empty()) text += "! " + reader.GetProblem();
  const std::string cut = reader.DescribeCutRecord();
  return cut.empty() ? text : text + "cut " + cut;
}

TEST(StatusReader, EveryRecordInWordsAndAsJsonInPiecesOfAnySize) {
  const std::string started = "started{\"record\":\"started\"}";
  const struct {
    std::string bytes;
    std::string text;
  } cases[] = {
      {"\x04\0\0\0garbage"s,
       "exit code 4: the UDP server could not listen"
       "{\"record\":\"exit_code\",\"code\":4,\"meaning\":"
       "\"the UDP server could not listen\"}"},
      {kStarted + "\1\xFF\xFF\xFF\xFF\0"s,
       started + "network -1, not metered"
                 "{\"record\":\"network\",\"id\":-1,\"metered\":false}"},
      // A shared, an unnamed and nobody's UID.
      {kStarted + "\2\x23\0"s + "\x0A\x09\x08\x8B\x4F\x10\xD2\x09\x18\xB7\x04" +
           "\x0A\x0A\x08\xFF\xFF\xFF\xFF\x0F\x10\1\x18\2" +
           "\x0A\x0A\x08\x88\x80\x80\x80\0\x10\3\x18\0"s,
       started + "stats: uid 10123 (com.example.browser,com.example.helper) "
                 "received 1234 bytes, sent 567 bytes; uid 4294967295 (nobody "
                 "(control traffic and unknown owners)) received 1 bytes, sent "
                 "2 bytes; uid 8 received 3 bytes, sent 0 bytes"
                 "{\"record\":\"stats\",\"uids\":[{\"uid\":10123,\"rx_bytes\":"
                 "1234,\"tx_bytes\":567,\"name\":"
                 "\"com.example.browser,com.example.helper\"},"
                 "{\"uid\":4294967295,\"rx_bytes\":1,\"tx_bytes\":2,\"name\":"
                 "\"nobody (control traffic and unknown owners)\"},"
                 "{\"uid\":8,\"rx_bytes\":3,\"tx_bytes\":0}]}"},
      {kStarted + "\x09\1\7\0\0\0\1"s,
       started + "! a status record of the unknown type 9"},
      {kStarted + "\2\1\0\x0A\1\7\0\0\0\1"s,
       started + "! a transfer statistics record that cannot be parsed"},
      {kStarted + "\2\xFF\x0D\x0A"s,
       started + "cut transfer statistics record (4 of 3586 bytes)"},
  };
  for (const auto& c : cases) {
    for (const size_t piece_bytes : {1, 2, 5, 1000}) {
      SCOPED_TRACE(piece_bytes);
      EXPECT_EQ(c.text, Read(c.bytes, piece_bytes));
    }
  }
}

// Shown by a change that a look cannot see: it keeps size and time.
TEST(PackageList, IsReadAgainOnceItHasChanged) {
  const std::string path =
      testing::TempDir() + "packages." + std::to_string(getpid());
  SetDeviceFile(DeviceFile::kPackageList, path);
  const auto write = [&path](const std::string& text, time_t time) {
    std::ofstream(path) << text << " 10123 0 /data/x\n";
    const timespec times[2] = {{time, 0}, {time, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, path.c_str(), times, 0));
  };
  PackageList list;
  const struct {
    const char* name;
    time_t file_time;
    int look_ms;
    std::string expected;
  } steps[] = {{"a", 1, 0, "a"},
               {"b", 2, 999, "a"},
               {"b", 2, 1000, "b"},
               {"c", 2, 5000, "b"},
               {"d", 3, 6000, "d"}};
  const SteadyTime start = GetSteadyTime();
  for (const auto& step : steps) {
    write(step.name, step.file_time);
    const auto now = start + std::chrono::milliseconds(step.look_ms);
    EXPECT_EQ(step.expected, list.GetNames(now).Find(10123)) << step.look_ms;
  }
  unlink(path.c_str());
  const auto end = start + std::chrono::seconds(10);
  EXPECT_EQ("", list.GetNames(end).Find(10123));
}

TEST(Metrics, ReportsAddUpUnderEscapedLabels) {
  std::istringstream list("a\"b\\c 10123\n");
  const PackageNames names(list);
  launch_state_t state;
  status_record_t record;
  record.kind = status_record_t::Kind::kTransferStats;
  auto* const usage = record.stats.add_uid_transfer_stats();
  usage->set_uid(10123);
  usage->set_rx_bytes(0xFFFFFFFF);
  CountRecord(record, names, &state);
  CountRecord(record, names, &state);
  EXPECT_THAT(FormatMetrics(state, names),
              testing::HasSubstr(
                  "\nvantrel_uid_received_bytes_total{uid=\"10123\",package="
                  "\"a\\\"b\\\\c\"} 8589934590\n"));
  EXPECT_EQ("a\\\\x0ab\\\\xff", EscapeLabelValue("a\nb\xFF"));
}

}  // namespace
}  // namespace vantrel
