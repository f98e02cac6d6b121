// For unit tests: the kernel's socket tables as files of the test's.
#pragma once

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "capture/socket_table_path_testing.h"

namespace vantrel {

// A row by its meaning. Addresses are words as the kernel prints them.
struct table_row_t {
  uint32_t local = 0, remote = 0;
  uint16_t port = 0, remote_port = 0;
  uint32_t uid = 0;
  unsigned long inode = 99;
  int state = 1;  // established
};

// What stands before the word of an IPv4 address in a table of IPv6.
constexpr char kMappedPrefix[] = "0000000000000000FFFF0000";

// One row in the kernel's own columns; the ends as it prints them.
inline std::string TableRow(const std::string& local, const std::string& remote,
                            uint32_t uid, unsigned long inode = 99,
                            int state = 1) {
  char state_text[8];
  snprintf(state_text, sizeof(state_text), " %02X ", state);
  return "   0: " + local + " " + remote + state_text +
         "00000000:00000000 00:00000000 00000000 " + std::to_string(uid) +
         "        0 " + std::to_string(inode) +
         " 1 0000000000000000 20 4 30 10 -1\n";
}

inline std::string ToTable(const std::vector<table_row_t>& rows,
                           const char* prefix) {
  std::string text;
  for (const table_row_t& row : rows) {
    char local[64], remote[64];
    snprintf(local, sizeof(local), "%s%08X:%04X", prefix, row.local, row.port);
    snprintf(remote, sizeof(remote), "%s%08X:%04X", prefix, row.remote,
             row.remote_port);
    text += TableRow(local, remote, row.uid, row.inode, row.state);
  }
  return text;
}

// While it lives, tables are looked for in a directory of its own.
class TableFiles {
 public:
  TableFiles() {
    EXPECT_NE(nullptr, mkdtemp(directory_.data()));
    SetSocketTableDirectory(directory_);
  }
  ~TableFiles() {
    SetSocketTableDirectory("/proc/net");
    std::filesystem::remove_all(directory_);
  }
  TableFiles(const TableFiles&) = delete;
  TableFiles& operator=(const TableFiles&) = delete;

  const std::string& GetDirectory() const { return directory_; }
  void SetTable(const std::string& name, const std::string& rows) const {
    std::ofstream(directory_ + "/" + name)
        << "  sl  local_address rem_address   st ... uid timeout inode\n"
        << rows;
  }

 private:
  std::string directory_ = ::testing::TempDir() + "tables.XXXXXX";
};

}  // namespace vantrel
