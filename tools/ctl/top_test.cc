#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tools/ctl/link_dump.h"
#include "tools/ctl/top_layout.h"
#include "tools/ctl/top_model.h"

namespace vantrel {
namespace {

constexpr char kDump[] =
    "ProxySocketV2 state:\n    rx_bytes: 9\n   buf_bytes: 4200\n"
    "  buf_length: 3\n         [RW]\nTCP streams:\n"
    "     7: 198.51.100.80:443, rx_bytes: 10, tx_bytes: 3000, buf_bytes: 5, "
    "buf_length: 1\n"
    "  12345: odd\n";

launch_state_t MakeState(uint64_t time_ms, uint64_t link_bytes,
                         uint64_t stats_time_ms, uint64_t uid_bytes) {
  launch_state_t state;
  state.phase = launch_state_t::Phase::kRunning;
  state.link = "unix:/link";
  state.protocol = "5";
  state.time_ms = time_ms;
  state.starts = 1;
  state.link_traffic = {link_bytes, 0};
  state.stats_time_ms = stats_time_ms;
  state.by_uid[10123] = {"com.example.browser", {uid_bytes, 1}};
  state.by_uid[8] = {"a\x1B[2Jb", {0, uid_bytes / 2}};
  return state;
}

std::string ToText(const TextLine& line) {
  std::string text;
  for (const text_span_t& span : line) text += span.text;
  return text;
}

TEST(LaunchState, IsReadAsItWasWritten) {
  launch_state_t state = MakeState(1, 2, 3, 1ull << 40);
  EXPECT_EQ(StateToJson(state), StateToJson(*ParseState(StateToJson(state))));
  state.network = {-1, true};
  state.link_traffic.reset();
  EXPECT_EQ(StateToJson(state), StateToJson(*ParseState(StateToJson(state))));
  EXPECT_FALSE(ParseState(R"({"record":"started"})"));
  for (const char* line : {"", "started", "[]", R"({"record":"state"})"}) {
    EXPECT_THROW(ParseState(line), std::runtime_error) << line;
  }
}

TEST(TopModel, RatesAreOfTheLaunchersClock) {
  TopModel model;
  model.Update(MakeState(1000, 100, 900, 1000));
  model.Update(MakeState(1100, 5000, 900, 1000));  // too soon for a rate
  EXPECT_TRUE(model.GetHistory().empty());
  model.Update(MakeState(3000, 10100, 900, 1000));
  EXPECT_EQ(5000, model.GetLinkRate().rx);
  EXPECT_EQ(0, model.GetApplications(TopModel::Sort::kDown)[0].rate.rx);
  // Reports come less often than states: theirs is the time that counts, and
  // the rate stays until the next one.
  model.Update(MakeState(5000, 10100, 4900, 9000));
  model.Update(MakeState(6000, 10100, 4900, 9000));
  EXPECT_EQ(0, model.GetLinkRate().rx);
  auto applications = model.GetApplications(TopModel::Sort::kDown);
  EXPECT_EQ(10123u, applications[0].uid);
  EXPECT_EQ(2000, applications[0].rate.rx);
  applications = model.GetApplications(TopModel::Sort::kUp);
  EXPECT_EQ(8u, applications[0].uid);
  EXPECT_EQ(1000, applications[0].rate.tx);
  // No report any more.
  model.Update(MakeState(30000, 10100, 4900, 9000));
  EXPECT_EQ(0, model.GetApplications(TopModel::Sort::kDown)[0].rate.rx);
  // The next launcher counts from zero.
  model.Disconnect();
  model.Update(MakeState(2000, 7, 0, 0));
  EXPECT_EQ(0, model.GetLinkRate().rx);
  model.Update(MakeState(3000, 1007, 0, 0));
  EXPECT_EQ(1000, model.GetLinkRate().rx);
}

TEST(TopModel, StreamsComeFromDumpsAndTheLog) {
  StreamOwners owners;
  owners.Take(
      "[T:7] Establishing a new TCP stream to: 198.51.100.80:443 (uid=10123) "
      "(package=com.example.browser) (cookie=9");
  owners.Take("[T:8] Closed stream. RX/TX: 1/2");
  TopModel model;
  model.Update(MakeState(1000, 0, 0, 0));
  model.SetDump(ParseDump(kDump), owners);
  link_dump_t next = ParseDump(kDump);
  ASSERT_EQ(1u, next.streams.size());
  next.streams[0].traffic.rx_bytes += 500;
  model.Update(MakeState(2000, 0, 0, 0));
  model.SetDump(next, owners);
  const auto stream = model.GetStreams(TopModel::Sort::kDown)[0];
  EXPECT_EQ("198.51.100.80:443", stream.dump.remote);
  EXPECT_EQ("com.example.browser", stream.owner);
  EXPECT_EQ(500, stream.rate.rx);
  EXPECT_EQ(10u, stream.dump.traffic.tx_bytes);
  EXPECT_EQ(5u, stream.dump.waiting_bytes);
  EXPECT_EQ(4200u, model.GetDump()->queued_bytes);
  EXPECT_EQ(3u, model.GetDump()->queued_messages);
}

TEST(TopLayout, FitsEveryTerminal) {
  TopModel model;
  model.Update(MakeState(1000, 0, 900, 0));
  model.Update(MakeState(2000, 5000, 1900, 4000));
  model.Update(MakeState(3000, 99999, 2900, 4001));
  model.SetDump(ParseDump(kDump), StreamOwners());
  top_view_t view;
  view.has_keys = true;
  view.note = "something to be said";
  for (view.columns = 1; view.columns < 130; ++view.columns) {
    for (view.lines = 1; view.lines < 20; ++view.lines) {
      const auto lines = LayOutTop(model, view);
      ASSERT_GE(view.lines, lines.size()) << view.columns;
      for (const auto& line : lines) {
        ASSERT_GE(view.columns, ToText(line).size()) << view.lines;
        // Nothing moves the cursor.
        ASSERT_EQ(std::string::npos, ToText(line).find('\x1B'));
      }
    }
  }
  EXPECT_EQ("q quit  p pause  sort by: down up total name",
            ToText(LayOutTop(model, view).back()));
  const struct {
    double bytes;
    const char* text;
  } cases[] = {{0, "0 B"},           {999.4, "999 B"},    {999.6, "1.00 kB"},
               {9994, "9.99 kB"},    {9996, "10.0 kB"},   {99960, "100 kB"},
               {999.6e3, "1.00 MB"}, {2.5e19, "25000 PB"}};
  for (const auto& c : cases) EXPECT_EQ(c.text, FormatBytes(c.bytes));
}

}  // namespace
}  // namespace vantrel
