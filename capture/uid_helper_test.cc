#include "capture/uid_helper.h"

#include <dlfcn.h>
#include <errno.h>
#include <gmock/gmock.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>

#include "common/hex_testing.h"
#include "platform/linux/log_capture.h"

namespace {
// The files of /proc/net while a test sets any; others do not exist then.
std::map<std::string, std::string> tables;
int opened_tables = 0;
time_t clock_lead_seconds = 0;
}  // namespace

// In place of the C library's: tests supply the kernel's tables and the time.
extern "C" FILE* fopen(const char* path, const char* mode) {
  if (tables.empty() || std::string(path).rfind("/proc/net/", 0) != 0) {
    static const auto real =
        reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"));
    return real(path, mode);
  }
  ++opened_tables;
  const auto table = tables.find(path + sizeof("/proc/net/") - 1);
  if (table == tables.end()) {
    errno = ENOENT;
    return nullptr;
  }
  return fmemopen(table->second.data(), table->second.size(), "r");
}
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  const int result = static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  now->tv_sec += clock_lead_seconds;
  return result;
}

namespace vantrel {
namespace {

using ::testing::IsEmpty;

constexpr unsigned int kNobody = 4294967295;

// One row in the kernel's own columns; the addresses as it prints them.
std::string Row(const std::string& local, const std::string& remote,
                unsigned int uid, unsigned long inode = 99) {
  return "   0: " + local + " " + remote +
         " 01 00000000:00000000 00:00000000 00000000 " + std::to_string(uid) +
         "        0 " + std::to_string(inode) +
         " 1 0000000000000000 20 4 30 10 -1\n";
}

class UidHelperTest : public ::testing::Test {
 protected:
  ~UidHelperTest() override {
    tables.clear();
    clock_lead_seconds = 0;
  }
  static std::string Table(const std::string& rows) {
    return "  sl  local_address rem_address   st ... uid timeout inode\n" +
           rows;
  }

  LogCapture log_;
};

TEST_F(UidHelperTest, FindsTheApplicationsEndOfAnAcceptedConnection) {
  struct stat status;
  ASSERT_EQ(0, fstat(STDIN_FILENO, &status));
  const std::string to = "076433C6:0050";
  const std::string application = Row("EFA7A8C0:9C40", to, 10001);
  const std::string own =
      Row("0100007F:1F90", "EFA7A8C0:9C40", 0, status.st_ino);
  const std::string other = Row("EFA7A8C0:9C41", to, 10002) +
                            Row("0100007F:1F90", "EFA7A8C0:9C41", 0, 5);
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
    tables = {{"tcp", Table(c.tcp)}, {"tcp6", Table(c.tcp6)}};
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
    tables = {{"udp", Table(rows)}};
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
  tables = {{"udp", Table(Row("EFA7A8C0:9C40", "076433C6:0035", 10001))}};
  opened_tables = 0;
  EXPECT_EQ(10001u, find(53));
  EXPECT_EQ(kNobody, find(54));
  tables["udp"] = Table(Row("EFA7A8C0:9C40", "076433C6:0035", 10002));
  clock_lead_seconds = 8;
  EXPECT_EQ(10001u, find(53));
  EXPECT_EQ(kNobody, find(54));
  EXPECT_EQ(2, opened_tables) << "that there is none is remembered, too";
  clock_lead_seconds = 10;
  EXPECT_EQ(10002u, find(53));
  EXPECT_EQ(3, opened_tables);
}

}  // namespace
}  // namespace vantrel
