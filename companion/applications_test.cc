#include "companion/applications.h"

#include <gtest/gtest.h>

#include <string>

#include "common/uid.h"

namespace vantrel {
namespace {

// A device that invents UIDs costs no more memory, and its sums stay right.
TEST(ApplicationsTest, ForgetsWhatWasNamedLongestAgoAndHasNoStream) {
  Applications applications;
  Application& held = applications.Get(1);
  EXPECT_TRUE(held.SetPackageName("com.example.held"));
  Application::Stream older(held, SteadyTime(std::chrono::seconds(5)));
  Application::Stream newer(held, SteadyTime(std::chrono::seconds(6)));
  for (uint32_t uid = 2; uid < 10'000; ++uid) {
    applications.Get(uid).GetCounts().bytes_to_device = 3;
    applications.Get(2).GetCounts().streams_denied = 7;
  }
  size_t count = 0;
  uint64_t bytes = applications.GetForgotten().bytes_to_device;
  applications.Each([&](const Application& application) {
    ++count;
    bytes += application.GetCounts().bytes_to_device;
  });
  EXPECT_EQ(Applications::kMaxKnown + 1, count);
  EXPECT_EQ(3u * 9998, bytes);
  EXPECT_EQ(7u, applications.Get(2).GetCounts().streams_denied);
  EXPECT_EQ("uid 1, com.example.held", applications.Get(1).Describe());
  EXPECT_EQ("uid unknown", applications.Get(kNobodyUid).Describe());

  older.Close();
  EXPECT_EQ(newer.GetBegin(), held.GetOpenSince());
  newer.Close();
  EXPECT_FALSE(held.GetOpenSince());
  EXPECT_EQ(2u, held.GetStreamCount());
  EXPECT_FALSE(held.SetPackageName("com.example.held"));
  EXPECT_TRUE(held.SetPackageName(std::string(300, 'x')));
  EXPECT_EQ(Application::kMaxNameBytes, held.GetPackageName().size());
}

}  // namespace
}  // namespace vantrel
