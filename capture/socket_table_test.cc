#include "capture/socket_table.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <fstream>
#include <random>
#include <string>

#include "capture/socket_table_testing.h"
#include "capture/table_files_testing.h"

namespace vantrel {
namespace {

class SocketTableTest : public ::testing::Test {
 protected:
  void ExpectAsFormats(const std::string& text) {
    const std::string& directory = files_.GetDirectory();
    std::ofstream(directory + "/table") << text;
    ASSERT_EQ("", FindAnyDifference(directory, "table")) << text;
  }

  TableFiles files_;
};

// Sound tables, and the same with pieces cut out, doubled, or replaced by what
// formats treat in ways of their own.
TEST_F(SocketTableTest, ReadsAnyTextAsTheFormatsDo) {
  const uint32_t seed = std::random_device()();
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
               n, address.c_str(), static_cast<uint32_t>(below(65536)),
               address.c_str(), static_cast<uint32_t>(below(65536)), 1, 0, 0, 0,
               0, 0, static_cast<uint32_t>(random()), 0,
               static_cast<uint32_t>(random()));
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
