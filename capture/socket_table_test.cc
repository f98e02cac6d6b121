#include "capture/socket_table.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

namespace vantrel {
namespace {

// How the formats read rows: the definition of what a table says.
bool Scan(FILE* table, tcp_row_t* row) {
  return fscanf(table,
                "%*s %08X:%04hX %*08X:%04hX %*s %*s %*s %*s %u %*s %lu "
                "%*[^\n]\n",
                &row->address, &row->port, &row->remote_port, &row->uid,
                &row->inode) == 5;
}
bool Scan(FILE* table, tcp_owner_row_t* row) {
  return fscanf(table, "%*s %08X:%04hX %*s %*s %*s %*s %*s %u %*[^\n]\n",
                &row->address, &row->port, &row->uid) == 3;
}
bool Scan(FILE* table, tcp6_owner_row_t* row) {
  return fscanf(table, "%*s %32[^:]:%hX %*s %*s %*s %*s %*s %u %*[^\n]\n",
                row->address, &row->port, &row->uid) == 3;
}
bool Scan(FILE* table, udp_row_t* row) {
  return fscanf(table, "%*s %08X:%04hX %08X:%04hX %*s %*s %*s %*s %u %*[^\n]\n",
                &row->address, &row->port, &row->remote_address,
                &row->remote_port, &row->uid) == 5;
}
bool Scan(FILE* table, udp6_row_t* row) {
  return fscanf(table,
                "%*s %32[^:]:%hX %32[^:]:%hX %*s %*s %*s %*s %u %*[^\n]\n",
                row->address, &row->port, row->remote_address,
                &row->remote_port, &row->uid) == 5;
}

std::string ToText(const tcp_row_t& r) {
  std::ostringstream out;
  out << r.address << ' ' << r.port << ' ' << r.remote_port << ' ' << r.uid
      << ' ' << r.inode;
  return out.str();
}
std::string ToText(const tcp_owner_row_t& r) {
  std::ostringstream out;
  out << r.address << ' ' << r.port << ' ' << r.uid;
  return out.str();
}
std::string ToText(const tcp6_owner_row_t& r) {
  std::ostringstream out;
  out << r.address << ' ' << r.port << ' ' << r.uid;
  return out.str();
}
std::string ToText(const udp_row_t& r) {
  std::ostringstream out;
  out << r.address << ' ' << r.port << ' ' << r.remote_address << ' '
      << r.remote_port << ' ' << r.uid;
  return out.str();
}
std::string ToText(const udp6_row_t& r) {
  std::ostringstream out;
  out << r.address << ' ' << r.port << ' ' << r.remote_address << ' '
      << r.remote_port << ' ' << r.uid;
  return out.str();
}

class SocketTableTest : public ::testing::Test {
 protected:
  SocketTableTest() {
    EXPECT_NE(nullptr, mkdtemp(directory_.data()));
    SetSocketTableDirectory(directory_);
  }
  ~SocketTableTest() override {
    SetSocketTableDirectory("/proc/net");
    std::filesystem::remove_all(directory_);
  }

  // Every row, and what is left in the last one when it does not convert.
  template <typename Row>
  void ExpectAsFormats(const std::string& text) {
    std::ofstream(directory_ + "/table") << text;
    FILE* const expected = fopen((directory_ + "/table").c_str(), "rt");
    static_cast<void>(!fscanf(expected, "%*[^\n]\n"));
    const auto table = SocketTable::Open("table");
    ASSERT_NE(nullptr, table);
    Row expected_row, row;
    bool has_row = true;
    while (has_row) {
      has_row = Scan(expected, &expected_row);
      ASSERT_EQ(has_row, table->Next(&row)) << text;
      ASSERT_EQ(ToText(expected_row), ToText(row)) << text;
    }
    fclose(expected);
  }
  void ExpectAsFormats(const std::string& text) {
    ExpectAsFormats<tcp_row_t>(text);
    ExpectAsFormats<tcp_owner_row_t>(text);
    ExpectAsFormats<tcp6_owner_row_t>(text);
    ExpectAsFormats<udp_row_t>(text);
    ExpectAsFormats<udp6_row_t>(text);
  }

  std::string directory_ = ::testing::TempDir() + "tables.XXXXXX";
};

// Sound tables, and the same with pieces cut out, doubled, or replaced by what
// formats treat in ways of their own.
TEST_F(SocketTableTest, ReadsAnyTextAsTheFormatsDo) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  const auto below = [&](size_t n) { return random() % n; };
  const char* const odd[] = {"",
                             "\n",
                             " ",
                             "\t",
                             "-1",
                             "+7",
                             "0x1",
                             ":",
                             "G",
                             "\v",
                             "4294967296",
                             "\n\n",
                             "99999999999999999999",
                             "\xFF"};
  for (int run = 0; run < 60; ++run) {
    const size_t digits = below(2) == 0 ? 8 : 32;
    std::string text = "  sl  local_address rem_address ...\n";
    for (size_t n = below(400); n > 0; --n) {
      char row[256];
      const std::string address(digits, "0123456789ABCDEF"[below(16)]);
      snprintf(row, sizeof(row),
               "%4zu: %s:%04X %s:%04X %02X %08X:%08X %02X:%08X %08X %5u %8d "
               "%u 1 0000000000000000 20 4 30 10 -1\n",
               n, address.c_str(), static_cast<unsigned>(below(65536)),
               address.c_str(), static_cast<unsigned>(below(65536)), 1, 0, 0, 0,
               0, 0, static_cast<unsigned>(random()), 0,
               static_cast<unsigned>(random()));
      text += row;
    }
    for (size_t n = below(4); n > 0; --n) {
      const size_t at = below(text.size());
      text.replace(at, below(6), odd[below(std::size(odd))]);
    }
    ExpectAsFormats(below(8) == 0 ? text.substr(0, below(text.size())) : text);
  }
}

}  // namespace
}  // namespace vantrel
