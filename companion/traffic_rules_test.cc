#include "companion/traffic_rules.h"

#include <gmock/gmock.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <limits>

#include "companion/quotas.h"

namespace vantrel {
namespace {

constexpr time_t kNoon = 1774958400;  // 2026-03-31 12:00 UTC
constexpr time_t kDaySeconds = 86400;

class QuotasTest : public ::testing::Test {
 protected:
  QuotasTest() {
    setenv("TZ", "UTC", 1);
    tzset();
    quotas_.Set({day_, month_});
  }
  std::shared_ptr<QuotaCount> Get(const quota_t& quota, uint32_t uid = 1) {
    return quotas_.Get(quota, "D", uid);
  }

  const quota_t day_{"day", 100, Period::kDay, Scope::kApplication};
  const quota_t month_{"month", 100, Period::kMonth, Scope::kAll};
  time_t now_ = kNoon;
  int changes_ = 0;
  int used_up_ = 0;
  Quotas quotas_{{[this] { return now_; }, [this] { ++changes_; },
                  [this] { ++used_up_; }}};
};

TEST_F(QuotasTest, BeginAnewWithEachDayOrMonthWhateverTheClockDoes) {
  const auto day = Get(day_);
  const auto month = Get(month_);
  day->Add(99);
  month->Add(150);
  EXPECT_FALSE(day->IsUsedUp());
  EXPECT_TRUE(month->IsUsedUp());
  EXPECT_FALSE(Get(day_, 2)->IsUsedUp());
  EXPECT_EQ(1, used_up_);
  day->Add(1);
  day->Add(1);
  EXPECT_TRUE(Get(day_)->IsUsedUp());
  EXPECT_EQ(2, used_up_);
  EXPECT_EQ(4, changes_);

  now_ -= 40 * kDaySeconds;  // set back: neither is given anything
  EXPECT_TRUE(day->IsUsedUp());
  EXPECT_TRUE(month->IsUsedUp());
  now_ += kDaySeconds;
  EXPECT_FALSE(day->IsUsedUp());
  EXPECT_TRUE(month->IsUsedUp());
  now_ += 20 * kDaySeconds;
  EXPECT_FALSE(month->IsUsedUp());

  day->Add(std::numeric_limits<size_t>::max());
  day->Add(std::numeric_limits<size_t>::max());
  EXPECT_TRUE(day->IsUsedUp());
}

TEST_F(QuotasTest, OutliveTheProgram) {
  Get(day_)->Add(60);
  Get(month_)->Add(70);
  const std::string text = quotas_.ToJson();
  quotas_.Set({});
  quotas_.Set({day_, month_});
  ASSERT_TRUE(quotas_.TakeJson(text));
  Get(day_)->Add(40);
  Get(month_)->Add(29);
  EXPECT_TRUE(Get(day_)->IsUsedUp());
  EXPECT_FALSE(Get(month_)->IsUsedUp());
  quotas_.Set({month_});  // goes on when the rules are read again
  Get(month_)->Add(1);
  EXPECT_TRUE(Get(month_)->IsUsedUp());

  for (const char* const wrong :
       {"", "{", "[]", "3", "{\"version\":2}", "{\"version\":1}",
        "{\"version\":1,\"counts\":[3]}",
        "{\"version\":1,\"counts\":[{\"quota\":\"month\",\"device\":\"\","
        "\"uid\":1,\"period\":1,\"bytes\":99999999999999999999}]}",
        "{\"version\":1,\"counts\":[{\"quota\":\"month\",\"device\":\"\","
        "\"uid\":-1,\"period\":1,\"bytes\":1}]}",
        "{\"version\":1,\"counts\":[{\"quota\":\"month\",\"device\":\"\","
        "\"uid\":4294967296,\"period\":1,\"bytes\":1}]}"}) {
    EXPECT_FALSE(quotas_.TakeJson(wrong)) << wrong;
  }
}

TEST_F(QuotasTest, AreBoundedInNumber) {
  for (uint32_t uid = 0; uid < 2 * Quotas::kMaxCounts; ++uid) {
    Get(day_, uid)->Add(1);
  }
  // All that came later are one.
  EXPECT_TRUE(Get(day_, 1 << 20)->IsUsedUp());
  EXPECT_FALSE(Get(day_, 7)->IsUsedUp());
  now_ += kDaySeconds;
  Get(day_, 1 << 20)->Add(100);
  EXPECT_FALSE(Get(day_, 1 << 21)->IsUsedUp());
}

class TrafficRulesTest : public ::testing::Test {
 protected:
  TrafficRulesTest() {
    testing::internal::CaptureStderr();
    char path[] = "/tmp/rules.XXXXXX";
    close(mkstemp(path));
    settings_.file = path;
  }
  ~TrafficRulesTest() override {
    testing::internal::GetCapturedStderr();
    unlink(settings_.file.c_str());
  }
  bool Read(const std::string& text) {
    std::ofstream(settings_.file) << text;
    return rules_.Read();
  }
  verdict_t Judge(const std::string& device, uint32_t uid, uint16_t port) {
    static const std::string kNoPackage;
    return rules_
        .Judge({"", device, "fd"}, {uid, &kNoPackage},
               HostAndPort::FromIPv4NetworkBytes(1, htons(port)),
               Transport::kTcp)
        .value();
  }
  const RateLimiter* Down(const std::string& device, uint32_t uid,
                          uint16_t port) {
    const auto limits = Judge(device, uid, port).policy.limits_to_device;
    return limits.size() == 1 ? limits[0].get() : nullptr;
  }

  asio::io_context loop_{1};
  rules_settings_t settings_;
  TrafficRules rules_{loop_, settings_, [] {}};
};

TEST_F(TrafficRulesTest, LimitsAreSharedByThoseWhoCountTogether) {
  ASSERT_TRUE(Read(R"(
    [limit.application]
    down = "1 MB/s"
    each = "application"
    [[rule]]
    port = [1, 2]
    limit = "application"
    [[rule]]
    port = 3
    limit = "application"
    [[rule]]
    port = 4
    limit = { down = "2 MB/s", up = "3 MB/s", each = "device" }
    [[rule]]
    port = 5
    limit = { down = "4 MB/s" }
    [[rule]]
    port = 6
    priority = "low")"));
  EXPECT_EQ(Down("A", 1, 1), Down("A", 1, 2));
  EXPECT_EQ(Down("A", 1, 1), Down("A", 1, 3));
  EXPECT_NE(Down("A", 1, 1), Down("A", 2, 1));
  EXPECT_NE(Down("A", 1, 1), Down("B", 1, 1));
  EXPECT_EQ(Down("A", 1, 4), Down("A", 2, 4));
  EXPECT_NE(Down("A", 1, 4), Down("B", 1, 4));
  EXPECT_EQ(Down("A", 1, 5), Down("B", 2, 5));
  EXPECT_EQ(4000000u, Down("A", 1, 5)->GetRate());
  EXPECT_EQ(3000000u, Judge("A", 1, 4).policy.limits_from_device[0]->GetRate());
  EXPECT_EQ(Priority::kLow, Judge("A", 1, 6).policy.priority);
  EXPECT_EQ(nullptr, Down("A", 1, 7));
  const RateLimiter* const used = Down("A", 1, 1);
  const auto user = Judge("A", 1, 1).policy;
  for (uint32_t uid = 10; uid < 10000; ++uid) Judge("A", uid, 1);
  EXPECT_EQ(used, Down("A", 1, 1));
}

TEST_F(TrafficRulesTest, AWrongFileChangesNothing) {
  ASSERT_TRUE(Read("[[rule]]\nname = \"a\"\naction = \"deny\""));
  const uint32_t edition = rules_.GetEdition();
  EXPECT_FALSE(Read("[[rule]]\naction = \"den\""));
  EXPECT_EQ(edition, rules_.GetEdition());
  EXPECT_EQ("rule \"a\"", Judge("A", 1, 1).denial);
  ASSERT_TRUE(
      Read("[[rule]]\nname = \"b\"\nquota = { bytes = \"9 B\", per = "
           "\"day\", each = \"device\" }"));
  EXPECT_NE(edition, rules_.GetEdition());
  const uint32_t before = rules_.GetEdition();
  AddToAll(Judge("A", 1, 1).policy.quotas, 9);
  EXPECT_NE(before, rules_.GetEdition());
  EXPECT_EQ("rule \"b\": quota \"b\" of the day is used up",
            Judge("A", 2, 1).denial);
  EXPECT_TRUE(Judge("A", 2, 1).is_over_quota);
  EXPECT_EQ("", Judge("B", 1, 1).denial);
}

}  // namespace
}  // namespace vantrel
