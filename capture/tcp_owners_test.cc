#include "capture/tcp_owners.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "capture/table_files_testing.h"
#include "common/hex_testing.h"
#include "common/monotonic_clock_testing.h"
#include "common/seed_testing.h"
#include "common/uid.h"

namespace vantrel {
namespace {

// Words as the kernel prints them.
constexpr uint32_t kApplicationWord = 0xEFA7A8C0;
constexpr uint32_t kRemoteWords[] = {0x076433C6, 0x086433C6};
const HostAndPort kListener = Endpoint("7F000001", 8080);

HostAndPort ToEnd(uint32_t word, uint16_t port) {
  return HostAndPort(IpAddress::FromIPv4NetworkBytes(word), port);
}

class TcpOwnersTest : public ::testing::Test {
 protected:
  ~TcpOwnersTest() override { SetMonotonicClockLead(0); }
  void SetTables(const std::vector<table_row_t>& tcp,
                 const std::vector<table_row_t>& tcp6) {
    files_.SetTable("tcp", ToTable(tcp, ""));
    files_.SetTable("tcp6", ToTable(tcp6, kMappedPrefix));
  }

  TableFiles files_;
};

// Few of everything, so that rows match in part and in full. No two connections
// have the same ends. What has ended has no inode, and belongs to root.
class RandomRows {
 public:
  explicit RandomRows(uint32_t seed) : random_(seed) {}
  size_t Below(size_t n) { return random_() % n; }
  uint16_t Port() { return static_cast<uint16_t>(40000 + Below(3)); }
  std::vector<table_row_t> Make() {
    std::vector<table_row_t> rows;
    for (size_t n = Below(12); n > 0; --n) {
      table_row_t row;
      row.local = Below(4) == 0 ? kRemoteWords[0] : kApplicationWord;
      row.remote = kRemoteWords[Below(2)];
      row.port = Port();
      row.remote_port = static_cast<uint16_t>(80 + Below(2));
      const auto ends =
          std::make_tuple(row.local, row.port, row.remote, row.remote_port);
      if (!seen_.insert(ends).second) continue;
      row.uid = 10000 + static_cast<uint32_t>(Below(3));
      if (Below(4) == 0) {
        const bool is_orphan = Below(2) == 0;
        row.state = is_orphan ? 0x04 : 0x06;
        row.uid = is_orphan ? 0 : row.uid;
        row.inode = 0;
      }
      rows.push_back(row);
    }
    return rows;
  }

 private:
  std::mt19937 random_;
  std::set<std::tuple<uint32_t, uint16_t, uint32_t, uint16_t>> seen_;
};

uint32_t FindInModel(const std::vector<table_row_t>& rows,
                     const TcpOwners::connection_t& wanted) {
  std::set<uint32_t> owners;
  for (const table_row_t& row : rows) {
    const bool has_ended =
        row.state == 0x06 || (row.uid == 0 && row.inode == 0);
    if (row.local != kApplicationWord || has_ended ||
        !(ToEnd(row.remote, row.remote_port) == wanted.destination)) {
      continue;
    }
    if (wanted.source_port != 0 && row.port != wanted.source_port) continue;
    owners.insert(row.uid);
  }
  return owners.size() == 1 ? *owners.begin() : kNobodyUid;
}

TEST_F(TcpOwnersTest, FindsTheOwnersThatTheModelFinds) {
  int found[2] = {}, missing[2] = {};
  const uint32_t first = FirstSeed();
  for (uint32_t seed = first; seed != first + 150; ++seed) {
    SCOPED_TRACE("VANTREL_SEED=" + std::to_string(seed));
    RandomRows random(seed);
    const auto tcp = random.Make(), tcp6 = random.Make();
    SetTables(tcp, tcp6);
    const bool is_known = seed % 2 == 0;
    TcpOwners::connection_t wanted;
    wanted.destination = ToEnd(kRemoteWords[random.Below(2)], 80);
    if (is_known) wanted.source_port = random.Port();
    auto rows = tcp;
    rows.insert(rows.end(), tcp6.begin(), tcp6.end());
    const uint32_t owner = FindInModel(rows, wanted);
    ASSERT_EQ(owner, TcpOwners().Find(wanted));
    ++(owner == kNobodyUid ? missing : found)[is_known ? 1 : 0];
  }
  for (const int count : {found[0], found[1], missing[0], missing[1]}) {
    EXPECT_GT(count, 3) << "or the tables show nothing";
  }
}

// A kernel with connections that are accepted in their order. They use few
// ports, again and again, each for an owner by chance.
class Kernel {
 public:
  struct connection_t {
    TcpOwners::connection_t ends;
    uint32_t uid;
    bool is_mapped;
    bool is_accepted = false;
  };

  explicit Kernel(uint32_t seed) : random_(seed) {}
  size_t Below(size_t n) { return random_() % n; }

  // Nothing where those ports are taken.
  void Connect() {
    const auto port = static_cast<uint16_t>(40000 + Below(4));
    const auto remote = static_cast<uint16_t>(80 + Below(2));
    const auto key = std::make_pair(port, remote);
    if (connections.count(key) != 0) return;
    connection_t made;
    // The packet filter keeps the port apart from those of others.
    made.ends.local = kListener;
    made.ends.peer =
        ToEnd(kApplicationWord, static_cast<uint16_t>(port + 10 * remote));
    made.ends.destination = ToEnd(kRemoteWords[0], remote);
    made.ends.source_port = port;
    made.uid = 10000 + static_cast<uint32_t>(Below(5));
    made.is_mapped = Below(2) == 0;
    connections[key] = made;
    waiting.push_back(key);
  }
  // One that is accepted goes by a reset: its ports are free at once.
  void End() {
    const auto victim = connections.begin();
    if (victim != connections.end() && victim->second.is_accepted) {
      connections.erase(victim);
    }
  }
  connection_t Accept() {
    connection_t& accepted = connections[waiting.front()];
    waiting.pop_front();
    accepted.is_accepted = true;
    return accepted;
  }
  void Write(std::vector<table_row_t>* tcp, std::vector<table_row_t>* tcp6) {
    for (const auto& [key, made] : connections) {
      table_row_t row;
      row.local = kApplicationWord;
      row.port = key.first;
      row.remote = kRemoteWords[0];
      row.remote_port = key.second;
      row.uid = made.uid;
      (made.is_mapped ? tcp6 : tcp)->push_back(row);
      table_row_t own;
      own.local = 0x0100007F;
      own.port = kListener.port;
      own.remote = kApplicationWord;
      own.remote_port = made.ends.peer.port;
      own.uid = 0;
      own.inode = made.is_accepted ? 98 : 0;
      tcp->push_back(own);
    }
    std::shuffle(tcp->begin(), tcp->end(), random_);
    std::shuffle(tcp6->begin(), tcp6->end(), random_);
  }

  std::map<std::pair<uint16_t, uint16_t>, connection_t> connections;
  std::deque<std::pair<uint16_t, uint16_t>> waiting;

 private:
  std::mt19937 random_;
};

// However few looks there are: never the owner of an earlier connection from
// the same port, nor nobody.
TEST_F(TcpOwnersTest, OneLookServesOnlyThoseWhoWaited) {
  const uint32_t first = FirstSeed();
  for (uint32_t seed = first; seed != first + 20; ++seed) {
    SCOPED_TRACE("VANTREL_SEED=" + std::to_string(seed));
    Kernel kernel(seed);
    TcpOwners owners;
    for (int step = 0; step < 300; ++step) {
      const size_t event = kernel.Below(10);
      if (event < 4) kernel.Connect();
      if (event == 4 || event == 5) kernel.End();
      if (event < 6 || kernel.waiting.empty()) continue;
      const auto accepted = kernel.Accept();
      std::vector<table_row_t> tcp, tcp6;
      kernel.Write(&tcp, &tcp6);
      SetTables(tcp, tcp6);
      ASSERT_EQ(accepted.uid, owners.Find(accepted.ends)) << step;
    }
  }
}

// With the tables taken away: the second connection waited when the first one
// was looked for. Whoever is stopped in between for 10 ms looks anew, and finds
// nothing.
TEST_F(TcpOwnersTest, OneLookServesThoseWhoWaitTogether) {
  bool is_served = false;
  for (int attempt = 0; attempt < 1000 && !is_served; ++attempt) {
    Kernel kernel(5);
    while (kernel.waiting.size() < 3) kernel.Connect();
    TcpOwners owners;
    const auto one = kernel.Accept();
    std::vector<table_row_t> tcp, tcp6;
    kernel.Write(&tcp, &tcp6);
    tcp.insert(tcp.end(), tcp6.begin(), tcp6.end());
    SetTables(tcp, {});
    ASSERT_EQ(one.uid, owners.Find(one.ends));
    SetTables({}, {});
    const auto two = kernel.Accept();
    is_served = owners.Find(two.ends) == two.uid;
    if (is_served) {
      EXPECT_EQ(kNobodyUid, owners.Find(two.ends)) << "once only";
    }
    const auto three = kernel.Accept();
    SetMonotonicClockLead(1);
    EXPECT_EQ(kNobodyUid, owners.Find(three.ends)) << "too old";
    SetMonotonicClockLead(0);
  }
  EXPECT_TRUE(is_served);
}

}  // namespace
}  // namespace vantrel
