#include "support/timer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <optional>

#include "support/descriptor.h"

namespace vantrel {
namespace {

// All of it is due, or readable, when the first handler ends the waiting of the
// others: the loop has their handlers in hand by then.
TEST(TimerTest, WhoHasGoneOrWaitsForAnotherTimeIsNotCalled) {
  asio::io_context loop{1};
  int calls = 0;
  const auto count = [&calls] { ++calls; };
  std::optional<Timer> gone;
  Timer cancelled(loop, count), moved(loop, count);
  Timer first(loop, [&] {
    ++calls;
    gone.reset();
    cancelled.Cancel();
    moved.WaitFor(std::chrono::hours(1));
  });
  gone.emplace(loop, count);
  for (Timer* timer : {&first, &*gone, &cancelled, &moved}) timer->WaitFor({});
  while (calls == 0) loop.poll();
  loop.poll();
  EXPECT_EQ(1, calls);

  int ends[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  std::optional<Descriptor> one, other;
  one.emplace(
      loop, UniqueFd(ends[0]), [] {}, [&] { count(), other.reset(); });
  other.emplace(
      loop, UniqueFd(ends[1]), [] {}, [&] { count(), one.reset(); });
  one->WaitWritable();
  other->WaitWritable();
  loop.poll();
  EXPECT_EQ(2, calls);
}

}  // namespace
}  // namespace vantrel
