#include <android/log.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "platform/linux/log_file.h"

namespace vantrel {
namespace {

class LogTest : public ::testing::Test {
 protected:
  LogTest() : dir_(::testing::TempDir() + "vantrel-log.XXXXXX") {
    EXPECT_NE(nullptr, mkdtemp(&dir_[0]));
    path_ = dir_ + "/log";
  }
  ~LogTest() override { std::filesystem::remove_all(dir_); }

  static std::string Read(const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }

  std::string dir_;
  std::string path_;
};

TEST_F(LogTest, OneLinePerMessageWhateverIsInIt) {
  const struct {
    const char* message;
    const char* text;
  } cases[] = {
      {"plain", "plain"},
      {"its own end\n", "its own end"},
      {"only one end\n\n", "only one end\\x0a"},
      {"a\nfalse line", "a\\x0afalse line"},
      {"\x1b[31m\r\t\x7f\x01", "\\x1b[31m\\x0d\\x09\\x7f\\x01"},
      {"gr\xc3\xbc\xc3\x9f \xc2\x9b"
       "1m \xc2\xa7",
       "gr\xc3\xbc\xc3\x9f \\xc2\\x9b"
       "1m \xc2\xa7"},
      // No UTF-8: alone, cut, longer than needed, a surrogate, too large.
      {"\x9b", "\\x9b"},
      {"\xc3", "\\xc3"},
      {"\xe2\x82|\xe2\x82\xac", "\\xe2\\x82|\xe2\x82\xac"},
      {"\xc0\x9b\xe0\x82\x9b", "\\xc0\\x9b\\xe0\\x82\\x9b"},
      {"\xed\xa0\x80\xf4\x90\x80\x80", "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},
      {"", ""},
  };
  ASSERT_EQ(0, setenv("VANTREL_LOG_FILE", path_.c_str(), 1));
  std::string expected;
  for (const auto& c : cases) {
    errno = EXDEV;
    EXPECT_EQ(static_cast<int>(strlen(c.message)),
              __android_log_print(ANDROID_LOG_WARN, "tag", "%s", c.message));
    EXPECT_EQ(EXDEV, errno);
    expected += std::string(" W tag: ") + c.text + "\n";
  }
  // What stands before: date, time and the two ids.
  std::string texts;
  std::ifstream log(path_);
  for (std::string line; std::getline(log, line);) {
    texts += line.substr(line.find(" W ")) + "\n";
  }
  EXPECT_EQ(expected, texts);
}

TEST_F(LogTest, TheFileFollowsItsName) {
  LogFile file(path_);
  const auto append = [&file](time_t now, const char* line) {
    return file.Follow(now) && file.Append(line);
  };
  const std::string rotated = dir_ + "/log.1";
  EXPECT_TRUE(append(100, "a"));
  struct stat made;
  ASSERT_EQ(0, stat(path_.c_str(), &made));
  EXPECT_EQ(0600u, made.st_mode & 0777);
  ASSERT_EQ(0, rename(path_.c_str(), rotated.c_str()));
  EXPECT_TRUE(append(100, "b"));  // the same second: not looked at again
  EXPECT_TRUE(append(101, "c"));
  EXPECT_EQ("ab", Read(rotated));
  EXPECT_EQ("c", Read(path_));
  ASSERT_EQ(0, unlink(path_.c_str()));
  EXPECT_TRUE(append(99, "d"));  // the clock was set back
  EXPECT_EQ("d", Read(path_));

  // What cannot be opened changes nothing until it can be.
  std::filesystem::remove_all(dir_);
  EXPECT_TRUE(append(102, "lost"));
  ASSERT_EQ(0, mkdir(dir_.c_str(), 0700));
  ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
  EXPECT_TRUE(append(103, "lost"));  // nobody reads: not waited for
  ASSERT_EQ(0, unlink(path_.c_str()));
  EXPECT_TRUE(append(104, "e"));
  EXPECT_EQ("e", Read(path_));

  LogFile nowhere(dir_ + "/missing/log");
  EXPECT_FALSE(nowhere.Follow(100));
}

// A 32-bit machine's kernel refuses it to programs with small offsets.
TEST_F(LogTest, AFileOfManyGibibytes) {
  constexpr uint64_t kSize = uint64_t{5} << 30;
  std::ofstream(path_).close();
  std::filesystem::resize_file(path_, kSize);
  LogFile file(path_);
  EXPECT_TRUE(file.Follow(100) && file.Append("a") && file.Follow(101));
  EXPECT_EQ(kSize + 1, std::filesystem::file_size(path_));
}

}  // namespace
}  // namespace vantrel
