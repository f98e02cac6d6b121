#include "tools/ctl/control_command.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "tools/ctl/command_outcome.h"
#include "tools/ctl/log_follower.h"

namespace vantrel {
namespace {

TEST(ControlCommand, ByteCounts) {
  EXPECT_EQ(65536u, ParseByteCount("64K"));
  for (const char* text : {"", "K", "-1", "4294967296", "4194304K", "1k",
                           "0x10", "18446744073709551616"}) {
    EXPECT_FALSE(ParseByteCount(text)) << text;
  }
}

TEST(CommandOutcome, IsFoundAmongOtherMessages) {
  const struct {
    uint8_t type;
    std::string messages;
    CommandOutcome::State state;
    const char* text;
  } cases[] = {
      {TYPE_PING, "Vantrel finished.", CommandOutcome::State::kFailed,
       "the daemon ended"},
      // First the end of an older dump; an empty line within this one.
      {TYPE_DUMP,
       "-------------------------------------\n"
       "----------- VANTREL DUMP -----------\ncut off\n"
       "----------- VANTREL DUMP -----------\na\n\nb\n\n"
       "-------------------------------------",
       CommandOutcome::State::kDone, "a\n\nb\n"},
      // Other transfers end first.
      {TYPE_PUSH,
       "[B] Starting push request 1 for 9 bytes.\n"
       "[B] Pull 1 completed with an rx rate of 1.00 kB/s\n"
       "[B] Push 11 completed with an approx tx rate of 2.00 kB/s\n"
       "[B] Push 1 completed with an approx tx rate of 3.00 kB/s",
       CommandOutcome::State::kDone, "push 1: 3.00 kB/s"},
      {TYPE_PULL,
       "[B] Starting pull request 0 for 9 bytes.\n"
       "[B] Pull 0 completed with an rx rate of inf kB/s",
       CommandOutcome::State::kDone, "pull 0: too fast to measure"},
      {TYPE_TRANSFER_STATS, "OnTransferStatsResult, transfer stats length 3584",
       CommandOutcome::State::kFailed,
       "the report was too large (3584 bytes) and is lost"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.messages);
    CommandOutcome outcome(c.type);
    auto state = CommandOutcome::State::kWaiting;
    std::istringstream messages(c.messages);
    for (std::string message; std::getline(messages, message);) {
      ASSERT_EQ(CommandOutcome::State::kWaiting, state);
      state = outcome.Take(message);
    }
    EXPECT_EQ(c.state, state);
    EXPECT_EQ(c.text, outcome.GetText());
  }
}

TEST(LogFollower, GivesWholeNewLinesOnlyAlsoOfTheNextFile) {
  const std::string path = ::testing::TempDir() + "log_follower_test";
  std::ofstream log(path);
  log << "old line\nhalf an " << std::flush;
  LogFollower follower(path);
  std::string line;
  log << "old line" << std::flush;
  EXPECT_FALSE(follower.Next(&line));
  log << "\n10-31 23:59:59.999   123  4567 D vantrel: a vantrel: b\x1b\x9b\n"
      << std::flush;
  rename(path.c_str(), (path + ".1").c_str());
  std::ofstream(path) << "new\n";
  ASSERT_TRUE(follower.Next(&line));
  EXPECT_FALSE(ParseLogLine(line));
  ASSERT_TRUE(follower.Next(&line));
  ASSERT_TRUE(ParseLogLine(line));
  EXPECT_EQ(123, ParseLogLine(line)->process);
  EXPECT_EQ("a vantrel: b\\x1b\\x9b", ParseLogLine(line)->message);
  ASSERT_TRUE(follower.Next(&line));
  EXPECT_EQ("new", line);
  EXPECT_FALSE(follower.Next(&line));
  unlink(path.c_str());
  unlink((path + ".1").c_str());
}

TEST(LogFollower, IsNotKeptByWhatHasNoEnd) {
  const std::string path = ::testing::TempDir() + "log_follower_end";
  unlink(path.c_str());  // of a run that was ended
  std::ofstream log(path);
  LogFollower follower(path);
  std::string line;
  log << std::string(3 * LogFollower::kMaxBytesAtOnce, 'x') << std::flush;
  EXPECT_FALSE(follower.Next(&line));
  log << "\nnext\nhalf" << std::flush;
  while (!follower.Next(&line)) {
  }
  EXPECT_EQ("next", line);
  // Longer than any memory, of zeros that take no room.
  std::filesystem::resize_file(path, uint64_t{1} << 36);
  EXPECT_FALSE(follower.Next(&line));
  unlink(path.c_str());

  ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
  EXPECT_THROW(LogFollower{path}, std::exception);
  unlink(path.c_str());
  EXPECT_THROW(LogFollower{"/dev/zero"}, std::exception);
}

}  // namespace
}  // namespace vantrel
