#include "capture/uid_helper.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "capture/socket_table.h"
#include "common/hex_testing.h"
#include "common/monotonic_clock.h"
#include "common/seed_testing.h"
#include "platform/linux/log_capture.h"

namespace vantrel {
namespace {

using ::testing::IsEmpty;

constexpr unsigned int kNobody = 4294967295;

// One row in the kernel's own columns; the addresses as it prints them.
std::string Row(const std::string& local, const std::string& remote,
                unsigned int uid, ino_t inode = 99) {
  return "   0: " + local + " " + remote +
         " 01 00000000:00000000 00:00000000 00000000 " + std::to_string(uid) +
         "        0 " + std::to_string(inode) +
         " 1 0000000000000000 20 4 30 10 -1\n";
}

// The kernel's tables are files of the test's.
class UidHelperTest : public ::testing::Test {
 protected:
  UidHelperTest() {
    EXPECT_NE(nullptr, mkdtemp(directory_.data()));
    SetSocketTableDirectory(directory_);
  }
  ~UidHelperTest() override {
    SetSocketTableDirectory("/proc/net");
    SetMonotonicClockLead(0);
    std::filesystem::remove_all(directory_);
  }
  void SetTable(const std::string& name, const std::string& rows) {
    std::ofstream(directory_ + "/" + name)
        << "  sl  local_address rem_address   st ... uid timeout inode\n"
        << rows;
  }

  std::string directory_ = ::testing::TempDir() + "tables.XXXXXX";
  LogCapture log_;
};

// A row by its meaning; the model below looks at nothing else.
struct row_t {
  uint32_t local, remote;  // of few addresses, as the kernel prints them
  uint16_t port, remote_port;
  unsigned int uid;
  unsigned long inode;
};
constexpr uint32_t kAppWord = 0xEFA7A8C0;  // the applications' own address
constexpr uint32_t kWords[] = {kAppWord, 0x0100007F, 0x076433C6};

// Few of everything, so that rows match in part and in full.
class RandomTables {
 public:
  RandomTables(unsigned int seed, unsigned long own_inode)
      : random_(seed), own_inode_(own_inode) {}
  size_t Below(size_t n) { return random_() % n; }
  uint16_t Port() { return static_cast<uint16_t>(40000 + Below(4)); }
  std::vector<row_t> Rows(size_t max) {
    std::vector<row_t> rows(Below(max));
    for (row_t& row : rows) {
      row = {kWords[Below(3)],
             kWords[Below(3)],
             Port(),
             Port(),
             10000 + static_cast<unsigned int>(Below(3)),
             Below(8) == 0 ? own_inode_ : own_inode_ + 1};
    }
    return rows;
  }

 private:
  std::mt19937 random_;
  const unsigned long own_inode_;
};

std::string ToTable(const std::vector<row_t>& rows, const char* prefix) {
  std::string text;
  for (const row_t& row : rows) {
    char local[64], remote[64];
    snprintf(local, sizeof(local), "%s%08X:%04X", prefix, row.local, row.port);
    snprintf(remote, sizeof(remote), "%s%08X:%04X", prefix, row.remote,
             row.remote_port);
    text += Row(local, remote, row.uid, row.inode);
  }
  return text;
}

// The row of the accepted socket |inode|, which is never at the applications'
// address.
std::vector<row_t>::const_iterator FindOwnRow(const std::vector<row_t>& tcp,
                                              unsigned long inode) {
  return std::find_if(tcp.begin(), tcp.end(), [&](const row_t& row) {
    return row.local != kAppWord && row.inode == inode;
  });
}

// The application's end of the accepted socket |inode|: the row at the
// applications' address, in either table, with the port that is the remote one
// of the socket's own row, or of the last row where that is missing.
unsigned int FindTcpOwner(const std::vector<row_t>& tcp,
                          const std::vector<row_t>& tcp6, unsigned long inode) {
  const auto own = FindOwnRow(tcp, inode);
  if (tcp.empty()) return kNobody;
  const uint16_t port =
      own == tcp.end() ? tcp.back().remote_port : own->remote_port;
  for (const auto* table : {&tcp, &tcp6}) {
    for (const row_t& row : *table) {
      if (row.local == kAppWord && row.port == port) return row.uid;
    }
  }
  return kNobody;
}

TEST_F(UidHelperTest, FindsTheOwnersThatTheModelFinds) {
  struct stat status;
  ASSERT_EQ(0, fstat(STDIN_FILENO, &status));
  const auto inode = static_cast<unsigned long>(status.st_ino);
  int found = 0, ambiguous = 0;
  const unsigned int first = FirstSeed();
  for (unsigned int seed = first; seed != first + 100; ++seed) {
    SCOPED_TRACE("VANTREL_SEED=" + std::to_string(seed));
    RandomTables tables(seed, inode);
    const auto tcp = tables.Rows(6), tcp6 = tables.Rows(12);
    // A row that makes no sense ends a table. Without the socket's own row the
    // search for the owner would begin behind it, so nothing stands there then.
    const char* const end = tables.Below(4) == 0 ? "   9: nonsense\n" : "";
    const bool has_own = FindOwnRow(tcp, inode) != tcp.end();
    SetTable("tcp", ToTable(tcp, "") + end +
                        (*end != 0 && has_own ? ToTable(tcp6, "") : ""));
    SetTable("tcp6", ToTable(tcp6, "0000000000000000FFFF0000"));
    const unsigned int owner = FindTcpOwner(tcp, tcp6, inode);
    ASSERT_EQ(owner, UidHelper::FindOwnerUidForTcpSocket(STDIN_FILENO));

    auto udp = tables.Rows(10);
    const row_t flow = {kWords[tables.Below(3)],
                        kWords[tables.Below(3)],
                        tables.Port(),
                        tables.Port(),
                        0,
                        0};
    for (row_t& row : udp) {
      if (tables.Below(2) == 0) continue;
      const unsigned int uid = row.uid;
      row = flow;
      row.uid = uid;
    }
    std::set<unsigned int> owners;
    for (const row_t& row : udp) {
      if (row.local == flow.local && row.remote == flow.remote &&
          row.port == flow.port && row.remote_port == flow.remote_port) {
        owners.insert(row.uid);
      }
    }
    SetTable("udp", ToTable(udp, ""));
    ASSERT_EQ(
        owners.size() == 1 ? *owners.begin() : kNobody,
        UidHelper::FindOwnerUidForDatagramIpV4(
            HostAndPort(IpAddress::FromIPv4NetworkBytes(flow.local), flow.port),
            HostAndPort(IpAddress::FromIPv4NetworkBytes(flow.remote),
                        flow.remote_port)));
    if (owner != kNobody) ++found;
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
  SetTable("udp", Row("EFA7A8C0:9C40", "076433C6:0035", 10001));
  EXPECT_EQ(10001u, find(53));
  EXPECT_EQ(kNobody, find(54));
  SetTable("udp", Row("EFA7A8C0:9C40", "076433C6:0035", 10002) +
                      Row("EFA7A8C0:9C40", "076433C6:0036", 10002));
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
  SetTable("udp6", Row(row, row, 10001) + Row(row, row, 10001));
  const auto find = [](const std::string& bytes) {
    const HostAndPort end(IpAddress::FromIPv6NetworkBytes(bytes.data()), 40000);
    return UidHelper::FindOwnerUidForDatagram(end, end);
  };
  EXPECT_EQ(kNobody, find(Bytes(address)));
  EXPECT_EQ(10001u, find(address.substr(0, 16)));
}

// One descriptor is enough, and its want is no flood of lines.
TEST_F(UidHelperTest, HoldsOneTableAtATime) {
  SetTable("tcp", Row("0100007F:1F90", "EFA7A8C0:9C40", 0, 5));
  SetTable("tcp6", Row("0000000000000000FFFF0000EFA7A8C0:9C40", ":0", 10001));
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit low = {256, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  std::vector<int> taken;
  int fd;
  while ((fd = dup(STDIN_FILENO)) != -1) taken.push_back(fd);
  std::vector<unsigned int> owners;
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
  EXPECT_THAT(log_.Take(),
              ::testing::ElementsAre("E: Error opening " + directory_ +
                                     "/tcp: Too many open files"));
}

}  // namespace
}  // namespace vantrel
