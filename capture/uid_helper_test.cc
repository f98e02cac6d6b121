#include "capture/uid_helper.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdint.h>
#include <sys/resource.h>
#include <unistd.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "capture/original_destination_testing.h"
#include "capture/table_files_testing.h"
#include "common/hex_testing.h"
#include "common/monotonic_clock_testing.h"
#include "common/seed_testing.h"
#include "platform/linux/log_capture.h"

namespace vantrel {
namespace {

using ::testing::IsEmpty;

constexpr uint32_t kNobody = 4294967295;
const HostAndPort kRemote = Endpoint("C6336407", 80);

class UidHelperTest : public ::testing::Test {
 protected:
  ~UidHelperTest() override {
    SetMonotonicClockLead(0);
    SetOriginalDestination(nullptr);
  }

  TableFiles files_;
  LogCapture log_;
};

// Few of everything, so that rows match in part and in full.
TEST_F(UidHelperTest, FindsTheOwnersOfDatagramsThatTheModelFinds) {
  const uint32_t words[] = {0xEFA7A8C0, 0x0100007F, 0x076433C6};
  int found = 0, ambiguous = 0;
  const uint32_t first = FirstSeed();
  for (uint32_t seed = first; seed != first + 100; ++seed) {
    SCOPED_TRACE("VANTREL_SEED=" + std::to_string(seed));
    std::mt19937 random(seed);
    const auto below = [&](size_t n) { return random() % n; };
    const auto make_row = [&] {
      table_row_t row;
      row.local = words[below(3)];
      row.remote = words[below(3)];
      row.port = static_cast<uint16_t>(40000 + below(4));
      row.remote_port = static_cast<uint16_t>(40000 + below(4));
      row.uid = 10000 + static_cast<uint32_t>(below(3));
      return row;
    };
    const table_row_t flow = make_row();
    std::vector<table_row_t> udp(below(10));
    std::set<uint32_t> owners;
    for (table_row_t& row : udp) {
      row = make_row();
      const uint32_t uid = row.uid;
      if (below(2) == 0) row = flow;
      row.uid = uid;
      if (row.local == flow.local && row.remote == flow.remote &&
          row.port == flow.port && row.remote_port == flow.remote_port) {
        owners.insert(uid);
      }
    }
    files_.SetTable("udp", ToTable(udp, ""));
    ASSERT_EQ(
        owners.size() == 1 ? *owners.begin() : kNobody,
        UidHelper::FindOwnerUidForDatagramIpV4(
            HostAndPort(IpAddress::FromIPv4NetworkBytes(flow.local), flow.port),
            HostAndPort(IpAddress::FromIPv4NetworkBytes(flow.remote),
                        flow.remote_port)));
    if (owners.size() == 1) ++found;
    if (owners.size() > 1) ++ambiguous;
  }
  EXPECT_GT(found, 10) << "or the tables show nothing";
  EXPECT_GT(ambiguous, 10);
  EXPECT_THAT(log_.Take(), IsEmpty());
}

TEST_F(UidHelperTest, RemembersAFlowForNineSeconds) {
  const HostAndPort local = Endpoint("C0A8A7EF", 40000);
  const auto find = [&](uint16_t port) {
    return UidHelper::FindOwnerUidForDatagram(local,
                                              Endpoint("C6336407", port));
  };
  files_.SetTable("udp", TableRow("EFA7A8C0:9C40", "076433C6:0035", 10001));
  EXPECT_EQ(10001u, find(53));
  EXPECT_EQ(kNobody, find(54));
  files_.SetTable("udp", TableRow("EFA7A8C0:9C40", "076433C6:0035", 10002) +
                             TableRow("EFA7A8C0:9C40", "076433C6:0036", 10002));
  SetMonotonicClockLead(8);
  EXPECT_EQ(10001u, find(53));
  EXPECT_EQ(kNobody, find(54)) << "that there is none is remembered, too";
  SetMonotonicClockLead(10);
  EXPECT_EQ(10002u, find(53));
}

// Sixteen characters of a row's text stand for its address: no real flow over
// IPv6 has an owner.
TEST_F(UidHelperTest, TakesTheTextOfAnIPv6RowForItsAddress) {
  const std::string address = "FE800000000000000000000000000001";
  const std::string row = address + ":9C40";
  files_.SetTable("udp6",
                  TableRow(row, row, 10001) + TableRow(row, row, 10001));
  const auto find = [](const std::string& bytes) {
    const HostAndPort end(IpAddress::FromIPv6NetworkBytes(bytes.data()), 40000);
    return UidHelper::FindOwnerUidForDatagram(end, end);
  };
  EXPECT_EQ(kNobody, find(Bytes(address)));
  EXPECT_EQ(10001u, find(address.substr(0, 16)));
}

// One descriptor is enough, and its want is no flood of lines.
TEST_F(UidHelperTest, HoldsOneTableAtATime) {
  SetOriginalDestination(&kRemote);
  const std::string prefix = kMappedPrefix;
  files_.SetTable("tcp", "");
  files_.SetTable("tcp6", TableRow(prefix + "EFA7A8C0:9C40",
                                   prefix + "076433C6:0050", 10001));
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit low = {256, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  std::vector<int> taken;
  int fd;
  while ((fd = dup(STDIN_FILENO)) != -1) taken.push_back(fd);
  std::vector<uint32_t> owners;
  for (int i = 0; i < 3; ++i) {
    owners.push_back(UidHelper::FindOwnerUidForTcpSocket(STDIN_FILENO));
  }
  close(taken.back());
  owners.push_back(UidHelper::FindOwnerUidForTcpSocket(STDIN_FILENO));
  taken.pop_back();
  for (const int open : taken) close(open);
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_THAT(owners,
              ::testing::ElementsAre(kNobody, kNobody, kNobody, 10001u));
  EXPECT_THAT(log_.Take(), ::testing::ElementsAre("E: Error opening " +
                                                  files_.GetDirectory() +
                                                  "/tcp: Too many open files"));
}

}  // namespace
}  // namespace vantrel
