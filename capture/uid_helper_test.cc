#include "capture/uid_helper.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "capture/socket_table.h"
#include "common/hex_testing.h"
#include "common/monotonic_clock.h"
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

TEST_F(UidHelperTest, FindsTheApplicationsEndOfAnAcceptedConnection) {
  struct stat status;
  ASSERT_EQ(0, fstat(STDIN_FILENO, &status));
  const std::string to = "076433C6:0050";
  const std::string application = Row("EFA7A8C0:9C40", to, 10001);
  const std::string own =
      Row("0100007F:1F90", "EFA7A8C0:9C40", 0, status.st_ino);
  const std::string other =
      Row("EFA7A8C0:9C41", to, 10002) +
      Row("0100007F:1F90", "EFA7A8C0:9C41", 0, status.st_ino + 1);
  const std::string elsewhere = Row("0100007F:9C40", to, 4);
  const std::string zeros = "0000000000000000FFFF0000";
  const struct {
    const char* name;
    std::string tcp, tcp6;
    unsigned int uid;
  } cases[] = {
      {"before its own row", other + application + own, "", 10001},
      {"after its own row", other + own + elsewhere + application, "", 10001},
      {"the first of a port", application + Row("EFA7A8C0:9C40", to, 3) + own,
       "", 10001},
      {"an IPv6 socket", other + own,
       Row(zeros + "0100007F:9C40", zeros + to, 4) +
           Row(zeros + "EFA7A8C0:9C40", zeros + to, 10001),
       10001},
      {"nowhere", elsewhere + own, Row(zeros + "EFA7A8C0:9C41", zeros + to, 4),
       kNobody},
      {"without its own row the last one counts",
       application + Row("0100007F:1F90", "EFA7A8C0:9C40", 0, 5), "", 10001},
      {"a broken row ends the table", application + "   1: nonsense\n" + own,
       "", kNobody},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SetTable("tcp", c.tcp);
    SetTable("tcp6", c.tcp6);
    EXPECT_EQ(c.uid, UidHelper::FindOwnerUidForTcpSocket(STDIN_FILENO));
  }
  EXPECT_THAT(log_.Take(), IsEmpty());
}

TEST_F(UidHelperTest, FindsTheOneOwnerOfADatagramFlow) {
  const std::string local = "EFA7A8C0:9C40", remote = "076433C6:0035";
  const std::string row = Row(local, remote, 10001);
  const std::pair<std::string, unsigned int> cases[] = {
      {Row("EFA7A8C0:9C41", remote, 2) + row, 10001},
      {Row(local, "00000000:0000", 10001), kNobody},  // not connected
      {Row(local, "086433C6:0035", 10001), kNobody},
      {row + row, 10001},
      {row + Row(local, remote, 2) + row, kNobody},  // ambiguous
  };
  for (const auto& [rows, uid] : cases) {
    SCOPED_TRACE(rows);
    SetTable("udp", rows);
    EXPECT_EQ(uid, UidHelper::FindOwnerUidForDatagramIpV4(
                       Endpoint("C0A8A7EF", 40000), Endpoint("C6336407", 53)));
  }
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
