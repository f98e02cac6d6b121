#include "companion/companion_log.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace vantrel {
namespace {

// Each line is the only one of its link, as of devices that come and go.
TEST(CompanionLogTest, LimitsAllLinksTogether) {
  size_t sent = 0, written = 0, left_out = 0;
  const auto send = [&](int count, LogKind kind) {
    testing::internal::CaptureStderr();
    for (int i = 0; i < count; ++i, ++sent) {
      CompanionLog(static_cast<uint32_t>(sent + 1))
          .Write(LogLevel::kWarning, kind, "a line");
    }
    std::istringstream log(testing::internal::GetCapturedStderr());
    for (std::string line; std::getline(log, line);) {
      const size_t more = line.find(" more lines of the kind");
      if (more == std::string::npos) {
        ++written;
      } else {
        left_out += std::stoul(line.substr(line.rfind(' ', more - 1)));
      }
    }
  };
  send(5000, LogKind::kLink);
  EXPECT_LT(written, sent);
  EXPECT_GE(written, 1u * CompanionLog::kMaxLinesOfAllLinks);
  // The next window tells how many there were.
  while (written + left_out < sent) send(1, LogKind::kLink);
  EXPECT_EQ(sent, written + left_out);
  sent = written = 0;
  send(5000, LogKind::kState);  // somebody waits for these
  EXPECT_EQ(sent, written);
}

}  // namespace
}  // namespace vantrel
