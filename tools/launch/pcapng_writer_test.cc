#include "tools/launch/pcapng_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <optional>
#include <string>
#include <vector>

#include "common/byte_order.h"

namespace vantrel {
namespace {

// The bytes of |capture|'s packets. Its blocks, one behind the other, must end
// where it ends.
size_t CountPacketBytes(const std::string& capture) {
  size_t bytes = 0;
  size_t at = 0;
  while (capture.size() - at >= 24) {
    const uint32_t length = GetLe32(&capture[at + 4]);
    if (length < 12 || length > capture.size() - at) break;
    if (GetLe32(&capture[at]) == 6) bytes += GetLe32(&capture[at + 20]);
    at += length;
  }
  EXPECT_EQ(capture.size(), at);
  return bytes;
}

class CaptureTest : public ::testing::Test {
 protected:
  void SetUp() override { signal(SIGPIPE, SIG_IGN); }
  void TearDown() override { unlink(path_.c_str()); }

  void Begin() {
    capture_.emplace(loop_, path_, [this](const std::string& message) {
      said_.push_back(message);
    });
    capture_->BeginLink("a link");
  }
  void WriteBytes(size_t count) {
    capture_->WriteBytes(PcapngWriter::kFromCompanion, std::string(count, 'x'),
                         {});
  }
  // Reads what there is, and lets the loop write more, until nothing comes.
  std::string Read(int fd) {
    std::string got;
    char piece[50000];
    ssize_t count;
    while ((count = read(fd, piece, sizeof(piece))) > 0) {
      got.append(piece, static_cast<size_t>(count));
      loop_.restart();
      loop_.poll();
    }
    return got;
  }

  const std::string path_ =
      testing::TempDir() + "capture." + std::to_string(getpid());
  asio::io_context loop_;
  std::vector<std::string> said_;
  std::optional<PcapngWriter> capture_;
};

// A writer that waits for its reader, before the first byte or later, hangs
// this test.
TEST_F(CaptureTest, OfAPipeIsWholeBlocksHoweverSlowTheReader) {
  ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
  Begin();
  for (int i = 0; i < 50; ++i) WriteBytes(10001);
  const UniqueFd reader(open(path_.c_str(), O_RDONLY | O_NONBLOCK));
  EXPECT_EQ(50 * 10001u, CountPacketBytes(Read(reader.Get())));
  EXPECT_TRUE(said_.empty());

  size_t sent = 0;
  for (; said_.empty() && sent < 1000; ++sent) WriteBytes(10001);
  WriteBytes(1);
  EXPECT_EQ(
      std::vector<std::string>{
          "the capture ends here: its reader does not keep up"},
      said_);
  std::string section(28, '\0');  // stands in for what came before
  section[4] = 28;
  EXPECT_EQ((sent - 1) * 10001, CountPacketBytes(section + Read(reader.Get())));
}

TEST_F(CaptureTest, EndsWithOneMessageWhenItCannotBeWritten) {
  ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
  UniqueFd reader(open(path_.c_str(), O_RDONLY | O_NONBLOCK));
  Begin();
  reader.Reset();
  for (int i = 0; i < 3; ++i) WriteBytes(100);
  capture_->Finish(0);
  EXPECT_EQ(std::vector<std::string>{"the capture ends here: Broken pipe"},
            said_);
  unlink(path_.c_str());
  said_.clear();

  // A file that takes only a part of a block.
  signal(SIGXFSZ, SIG_IGN);
  const rlimit full = {500, RLIM_INFINITY};
  ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &full));
  Begin();
  for (int i = 0; i < 10; ++i) WriteBytes(100);
  const rlimit any = {RLIM_INFINITY, RLIM_INFINITY};
  setrlimit(RLIMIT_FSIZE, &any);
  EXPECT_EQ(std::vector<std::string>{"the capture ends here: File too large"},
            said_);
  const UniqueFd file(open(path_.c_str(), O_RDONLY));
  EXPECT_EQ(200u, CountPacketBytes(Read(file.Get())));
}

}  // namespace
}  // namespace vantrel
