#include "tools/launch/line_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <asio/io_context.hpp>
#include <string>

#include "common/unique_fd.h"

namespace vantrel {
namespace {

// A reader that stops for a while gets whole lines, then the number of those
// that are missing, then whole lines again. The descriptor's own flags, which
// others may rely on, stay; a writer that waits hangs this test.
TEST(LineWriter, NeverWaitsAndTellsWhatItDropped) {
  for (const bool is_socket : {false, true}) {
    int ends[2];
    ASSERT_EQ(
        0, is_socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends) : pipe(ends));
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    asio::io_context loop;
    LineWriter lines(loop, writer.Get(), "dropped ", " lines");
    constexpr size_t kLines = 50000;
    const std::string line(19, 'x');
    for (size_t i = 0; i < kLines; ++i) lines.Write(line);

    fcntl(reader.Get(), F_SETFL, O_NONBLOCK);
    std::string got;
    char piece[4096];
    while (got.find(" lines\n") == std::string::npos) {
      const ssize_t count = read(reader.Get(), piece, sizeof(piece));
      if (count > 0) got.append(piece, static_cast<size_t>(count));
      loop.poll();
    }
    EXPECT_EQ(0, fcntl(writer.Get(), F_GETFL) & O_NONBLOCK);
    lines.Write("the last");
    EXPECT_EQ(0u, lines.Finish(0));
    ssize_t count;
    while ((count = read(reader.Get(), piece, sizeof(piece))) > 0) {
      got.append(piece, static_cast<size_t>(count));
    }
    const size_t whole = got.find('d') / (line.size() + 1);
    EXPECT_LT(LineWriter::kMaxWaitingBytes / (line.size() + 1), whole);
    std::string expected;
    for (size_t i = 0; i < whole; ++i) expected += line + "\n";
    expected += "dropped " + std::to_string(kLines - whole) + " lines\n";
    EXPECT_EQ(expected + "the last\n", got);
  }
}

}  // namespace
}  // namespace vantrel
