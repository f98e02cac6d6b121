#include <android/log.h>
#include <binder/IPermissionController.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>

namespace {

// The one test that may open the log file: it is opened once per process.
TEST(LogTest, AppendsThreadTimeLinesToTheFile) {
  char path[] = "/tmp/vantrel_log_XXXXXX";
  close(mkstemp(path));
  setenv("VANTREL_LOG_FILE", path, 1);
  errno = ENOENT;
  EXPECT_EQ(9, __android_log_print(ANDROID_LOG_DEBUG, "tag", "number %d", 42));
  EXPECT_EQ(ENOENT, errno);
  __android_log_print(ANDROID_LOG_ERROR, "tag", "own newline\n");

  std::ifstream file(path);
  std::string first, second, end;
  std::getline(file, first);
  std::getline(file, second);
  EXPECT_FALSE(std::getline(file, end));
  EXPECT_TRUE(std::regex_match(
      first,
      std::regex(
          R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +\d+ D tag: number 42)")))
      << first;
  EXPECT_NE(std::string::npos, second.find(" E tag: own newline")) << second;
  unlink(path);
}

// What a machine without the device's files answers. The files themselves are
// used by the end-to-end tests, whose devices have them.
TEST(PlatformTest, AnswersWithoutTheDevicesFiles) {
  if (access("/system/build.prop", F_OK) == 0) GTEST_SKIP() << "a device";
  EXPECT_EQ(1, property_get_bool("ro.debuggable", 1));
  EXPECT_EQ(0, property_get_bool("ro.debuggable", 0));
  const auto service = android::defaultServiceManager()->getService(
      android::String16("permission"));
  EXPECT_EQ(nullptr, service.get());
  EXPECT_EQ(nullptr,
            android::IPermissionController::asInterface(service).get());
}

}  // namespace
