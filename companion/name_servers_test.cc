#include "companion/name_servers.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <fstream>

namespace vantrel {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class NameServersTest : public ::testing::Test {
 protected:
  NameServersTest() { testing::internal::CaptureStderr(); }
  ~NameServersTest() override {
    unlink(path_.c_str());
    testing::internal::GetCapturedStderr();
  }

  // By another name first, as programs do that are careful.
  void Write(const std::string& text) {
    std::ofstream(path_ + ".new") << text;
    ASSERT_EQ(0, rename((path_ + ".new").c_str(), path_.c_str()));
  }
  std::string Get() { return servers_.Get(now_).ToString(); }

  const std::string path_ = testing::TempDir() + "vantrel-name-servers-test." +
                            std::to_string(getpid());
  NameServers servers_{path_};
  SteadyTime now_{seconds(100)};
};

TEST_F(NameServersTest, AreWhatTheFileSaysNow) {
  EXPECT_EQ("127.0.0.1:53", Get());
  Write(
      "# nameserver 192.0.2.1\nsearch example.com\nnameserver fe80::1%eth0\n"
      "nameserver\nnameserver 192.0.2.300\n\tnameserver\t192.0.2.2 # x\n");
  EXPECT_EQ("127.0.0.1:53", Get());  // it has just been looked at
  const uint32_t edition = servers_.GetEdition(now_);
  now_ += seconds(1);
  EXPECT_EQ("192.0.2.2:53", Get());
  EXPECT_NE(edition, servers_.GetEdition(now_));
  Write("nameserver 2001:db8::35");
  now_ += seconds(1);
  EXPECT_EQ("2001:db8::35:53", Get());
  Write(std::string(1 << 20, 'x'));
  now_ += seconds(1);
  EXPECT_EQ("127.0.0.1:53", Get());
}

TEST_F(NameServersTest, AreAskedInTurnsWhenOneDoesNotAnswer) {
  Write("nameserver 192.0.2.1\nnameserver 192.0.2.2\n");
  const auto ask = [this] {
    servers_.OnAsked(now_);
    return Get();
  };
  EXPECT_EQ("192.0.2.1:53", ask());
  now_ += milliseconds(1999);
  EXPECT_EQ("192.0.2.1:53", ask());
  servers_.OnAnswered();
  now_ += seconds(60);
  EXPECT_EQ("192.0.2.1:53", ask());
  const uint32_t edition = servers_.GetEdition(now_);
  now_ += seconds(2);
  EXPECT_EQ("192.0.2.2:53", ask());
  EXPECT_NE(edition, servers_.GetEdition(now_));
  now_ += seconds(1);
  EXPECT_EQ("192.0.2.2:53", ask());
  servers_.OnFailed();
  EXPECT_EQ("192.0.2.1:53", ask());
}

}  // namespace
}  // namespace vantrel
