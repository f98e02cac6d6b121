#include "companion/figures.h"

#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "companion/metrics_server.h"
#include "companion/state_report.h"

namespace vantrel {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr char kReceived[] =
    "vantrel_companion_application_received_bytes_total";

class FiguresTest : public ::testing::Test {
 protected:
  void SetUp() override { figures_.OnConnected("d"); }
  Figures::usage_t MakeUsage(const std::string& device) const {
    return {device, {}, *applications_};
  }
  std::string Format(const std::string& device = "d") {
    figures_.BeginLook();
    figures_.Look(MakeUsage(device), true, now_);
    return figures_.Format(1);
  }
  static std::string MakeSample(const std::string& uid,
                                const std::string& package,
                                const std::string& value) {
    return std::string(kReceived) + "{device=\"d\",uid=\"" + uid +
           "\",package=\"" + package + "\"} " + value + "\n";
  }
  // The link ends, and another one of the device comes.
  void Reconnect() {
    const std::string device = "d";
    figures_.Keep(MakeUsage(device), now_);
    applications_.emplace();
  }

  SteadyTime now_ = GetSteadyTime();
  std::optional<Applications> applications_{std::in_place};
  Figures figures_{now_, 1e9};
};

TEST_F(FiguresTest, CountOnWhenADeviceComesBack) {
  applications_->Get(10123).GetCounts().bytes_to_device = 5;
  EXPECT_THAT(Format(), HasSubstr(MakeSample("10123", "", "5")));
  Reconnect();
  EXPECT_THAT(Format(), HasSubstr(MakeSample("10123", "", "5")));
  applications_->Get(10123).GetCounts().bytes_to_device = 2;
  applications_->GetUnknown().GetCounts().bytes_to_device = 3;
  EXPECT_THAT(Format(), HasSubstr(MakeSample("10123", "", "7")));
  EXPECT_THAT(Format(), HasSubstr(MakeSample("unknown", "", "3")));
  // Above 2^64 a counter begins again, as after a restart.
  applications_->Get(10123).GetCounts().bytes_to_device = UINT64_MAX;
  EXPECT_THAT(Format(), HasSubstr(MakeSample("10123", "", "4")));
}

TEST_F(FiguresTest, NamesOfAHostileDeviceAreBounded) {
  Application& application = applications_->Get(1);
  ASSERT_TRUE(application.SetPackageName("a\"\\\n\xFF"));
  EXPECT_THAT(Format(), HasSubstr(MakeSample("1", R"(a\"\\\\x0a\\xff)", "0")));
  // Another name counts an hour later.
  ASSERT_TRUE(application.SetPackageName("b"));
  now_ += Figures::kNameTime - std::chrono::seconds(1);
  EXPECT_THAT(Format(), Not(HasSubstr("\"b\"")));
  now_ += std::chrono::seconds(1);
  EXPECT_THAT(Format(), HasSubstr(MakeSample("1", "b", "0")));
  // UIDs without end, in link after link.
  for (uint32_t link = 0; link < 3; ++link) {
    for (uint32_t uid = 0; uid < 1000; ++uid) {
      applications_->Get(2 + uid + 1000 * link).GetCounts().bytes_to_device = 1;
    }
    static_cast<void>(Format());
    Reconnect();
  }
  const std::string text = Format();
  size_t samples = 0;
  for (size_t at = 0;
       (at = text.find(std::string(kReceived) + "{", at)) != std::string::npos;
       ++at) {
    ++samples;
  }
  EXPECT_GE(Figures::kMaxApplicationsOfDevice + 1, samples);
  EXPECT_THAT(text, HasSubstr(MakeSample("other", "", "2746")));
  // Devices without end.
  for (int i = 0; i < 1000; ++i) figures_.OnConnected(std::to_string(i));
  EXPECT_THAT(figures_.Format(1), HasSubstr("{device=\"other\"}"));
  EXPECT_THAT(figures_.Format(1), Not(HasSubstr("{device=\"500\"}")));
}

TEST_F(FiguresTest, ActivityGrowsWithWhatIsCountedAlone) {
  uint64_t last = 0;
  const auto has_grown = [&] {
    static_cast<void>(Format());
    const uint64_t before = std::exchange(last, figures_.GetActivity());
    return last > before;
  };
  std::optional<Application::Stream> stream;
  EXPECT_FALSE((has_grown(), has_grown()));
  stream.emplace(applications_->Get(7), now_);
  EXPECT_TRUE(has_grown());
  EXPECT_THAT(Format(),
              HasSubstr("oldest_stream_timestamp_seconds{device=\"d\","
                        "uid=\"7\",package=\"\"} 1000000000.000\n"));
  EXPECT_FALSE(has_grown());
  stream.reset();
  EXPECT_TRUE(has_grown());
  Reconnect();
  EXPECT_FALSE(has_grown());
}

TEST(StateReport, RoomIsSharedByThoseThatWantMore) {
  const struct {
    std::vector<size_t> wanted;
    size_t room;
    std::vector<size_t> shares;
  } cases[] = {{{}, 5, {}},
               {{1, 2}, 5, {1, 2}},
               {{9, 1, 9}, 11, {5, 1, 5}},
               {{9, 1, 3}, 8, {4, 1, 3}},
               {{9, 9}, 0, {0, 0}}};
  for (const auto& c : cases) EXPECT_EQ(c.shares, ShareOut(c.wanted, c.room));
}

TEST(MetricsServer, JudgesRequests) {
  const struct {
    std::string head;
    int status;
  } cases[] = {
      {"GET /metrics HTTP/1.1\r\nHost: a\r\n\r\n", 200},
      {"HEAD http://[::1]:9437/metrics?x=1 HTTP/1.0\r\n\r\n", 200},
      {"GET / HTTP/1.1\r\n\r\n", 404},
      {"GET http://host HTTP/1.1\r\n\r\n", 400},
      {"POST /metrics HTTP/1.1\r\n\r\n", 405},
      {"GET /metrics HTTP/2\r\n\r\n", 505},
      {"GET /metrics\r\n\r\n", 400},
      {"GET  /metrics HTTP/1.1\r\n\r\n", 400},
      {"\r\n\r\n", 400},
      {std::string("\0\xFF\r\n\r\n", 6), 400},
      {std::string(MetricsServer::kMaxRequestBytes + 1, 'a'), 431},
  };
  for (const auto& c : cases)
    EXPECT_EQ(c.status, JudgeRequest(c.head)) << c.head;
}

}  // namespace
}  // namespace vantrel
