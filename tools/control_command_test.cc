#include "tools/control_command.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tools/command_outcome.h"
#include "tools/log_follower.h"

namespace vantrel {
namespace {

using namespace std::string_literals;

TEST(ControlCommand, PacketsAndByteCounts) {
  EXPECT_EQ("\1"s, EncodeControlPacket(TYPE_STOP));
  EXPECT_EQ("\5\0\x10\0\0"s, EncodeControlPacket(TYPE_PUSH, 4096));
  EXPECT_EQ("\4\xFE\xFF\xFF\xFF"s, EncodeControlPacket(TYPE_PULL, 0xFFFFFFFE));
  EXPECT_EQ(0u, ParseByteCount("0"));
  EXPECT_EQ(65536u, ParseByteCount("64K"));
  EXPECT_EQ(10485760u, ParseByteCount("10M"));
  EXPECT_EQ(4294967295u, ParseByteCount("4294967295"));
  for (const char* text : {"", "K", "-1", "4294967296", "4G", "4194304K", "1k",
                           "1 K", "0x10", "10MB", "18446744073709551616"}) {
    EXPECT_FALSE(ParseByteCount(text)) << text;
  }
}

TEST(CommandOutcome, IsFoundAmongOtherMessages) {
  const struct {
    const char* name;
    uint8_t type;
    std::vector<std::string> messages;
    CommandOutcome::State state;
    const char* text;
  } cases[] = {
      {"ping",
       TYPE_PING,
       {"[B] x", "[B] PING TIME (ms): 42"},
       CommandOutcome::kDone,
       "round trip: 42 ms"},
      {"ping without an answer",
       TYPE_PING,
       {"[B] x"},
       CommandOutcome::kWaiting,
       "nothing in the log yet"},
      {"the daemon went",
       TYPE_PING,
       {"Vantrel finished."},
       CommandOutcome::kFailed,
       "the daemon ended"},
      {"stop",
       TYPE_STOP,
       {"[C] Received STOP message.", "Vantrel finished."},
       CommandOutcome::kDone,
       "stopped"},
      {"stop takes its time",
       TYPE_STOP,
       {"[C] Received STOP message."},
       CommandOutcome::kWaiting,
       "stopping"},
      {"the end of an older dump and an empty line",
       TYPE_DUMP,
       {"-------------------------------------",
        "----------- VANTREL DUMP -----------", "a", "", "b", "",
        "-------------------------------------"},
       CommandOutcome::kDone,
       "a\n\nb\n"},
      {"another transfer ends first",
       TYPE_PUSH,
       {"[B] Starting pull request 1 for 9 bytes.",
        "[B] Starting push request 1 for 9 bytes.",
        "[B] Pull 1 completed with an rx rate of 1.00 kB/s",
        "[B] Push 11 completed with an approx tx rate of 2.00 kB/s",
        "[B] Push 1 completed with an approx tx rate of 3.00 kB/s"},
       CommandOutcome::kDone,
       "push 1: 3.00 kB/s"},
      {"an older transfer ends",
       TYPE_PULL,
       {"[B] Pull 0 completed with an rx rate of 1.00 kB/s",
        "[B] Starting pull request 1 for 9 bytes."},
       CommandOutcome::kWaiting,
       "pull 1 is running"},
      {"largest report",
       TYPE_TRANSFER_STATS,
       {"OnTransferStatsResult, transfer stats length 3583"},
       CommandOutcome::kDone,
       "a report of 3583 bytes is on the status channel"},
      {"report too large",
       TYPE_TRANSFER_STATS,
       {"OnTransferStatsResult, transfer stats length 3584"},
       CommandOutcome::kFailed,
       "the report was too large (3584 bytes) and is lost"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CommandOutcome outcome(c.type);
    auto state = CommandOutcome::kWaiting;
    for (const std::string& message : c.messages) {
      ASSERT_EQ(CommandOutcome::kWaiting, state);
      state = outcome.Take(message);
    }
    EXPECT_EQ(c.state, state);
    EXPECT_EQ(c.text, outcome.GetText());
  }
}

TEST(LogFollower, GivesWholeNewLinesOnly) {
  const std::string path = ::testing::TempDir() + "log_follower_test";
  std::ofstream log(path);
  log << "old line\nhalf an " << std::flush;
  LogFollower follower(path);
  std::string line;
  log << "old one\n10-21 01:02:03.004    5     5 D vantrel: [B] a vantrel: b"
      << std::flush;
  ASSERT_TRUE(follower.Next(&line));
  EXPECT_EQ("", GetLogMessage(line));
  EXPECT_FALSE(follower.Next(&line));
  log << "\n\n" << std::flush;
  ASSERT_TRUE(follower.Next(&line));
  EXPECT_EQ("[B] a vantrel: b", GetLogMessage(line));
  unlink(path.c_str());
}

}  // namespace
}  // namespace vantrel
