#include "support/service_manager.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

namespace vantrel {
namespace {

TEST(ServiceManagerTest, TakesAWatchdogOfAnySize) {
  const struct {
    const char* text;
    int64_t us;  // 0: none
  } cases[] = {
      {"", 0},
      {"0", 0},
      {"-1", 0},
      {"ten", 0},
      {"3000000us", 0},
      {"1", 20000},
      {"3000000", 3000000},
      {"9223372036854775807", 3600000000},
      {"18446744073709551615", 3600000000},
      {"99999999999999999999999999", 3600000000},
  };
  const auto get = [] {
    return ServiceManager::GetWatchdogTime()
        .value_or(std::chrono::microseconds(0))
        .count();
  };
  for (const auto& c : cases) {
    setenv("WATCHDOG_USEC", c.text, 1);
    EXPECT_EQ(c.us, get()) << c.text;
  }
  setenv("WATCHDOG_PID", "1", 1);
  EXPECT_EQ(0, get());
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  EXPECT_EQ(3600000000, get());
  unsetenv("WATCHDOG_PID");
  unsetenv("WATCHDOG_USEC");
  EXPECT_EQ(0, get());
}

}  // namespace
}  // namespace vantrel
