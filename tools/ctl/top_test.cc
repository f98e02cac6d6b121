#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/companion_state.h"
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

companion_state_t::device_t MakeDevice(uint32_t id, uint64_t bytes) {
  companion_state_t::device_t device;
  device.id = id;
  device.link = "rfcomm:00:11:22:33:44:0" + std::to_string(id);
  device.protocol = "20";
  device.phase = companion_state_t::device_t::Phase::kRunning;
  device.uptime_ms = 60000;
  device.link_traffic = {2 * bytes, bytes};
  companion_state_t::application_t application;
  application.uid = 10123;
  application.name = "com.example\x1B[2J\xFF";
  application.traffic = {bytes, bytes / 2};
  application.streams_open = 9;
  for (uint32_t stream = 1; stream <= 9; ++stream) {
    application.streams.push_back(
        {stream, "198.51.100.80:443", {bytes / stream, 0}, 50000});
  }
  device.applications = {application, companion_state_t::application_t()};
  return device;
}

companion_state_t MakeCompanionState(uint64_t time_ms, uint64_t bytes) {
  companion_state_t state;
  state.time_ms = time_ms;
  state.devices = {MakeDevice(1, bytes / 2), MakeDevice(2, bytes)};
  return state;
}

std::string ToText(const TextLine& line) {
  std::string text;
  for (const text_span_t& span : line) text += span.text;
  return text;
}

std::string ToText(const std::vector<TextLine>& lines) {
  std::string text;
  for (const TextLine& line : lines) text += ToText(line) + "\n";
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

TEST(CompanionState, IsReadAsItWasWritten) {
  companion_state_t state = MakeCompanionState(1, UINT64_MAX);
  state.phase = companion_state_t::Phase::kStopping;
  state.left_out = {1, 2, UINT64_MAX};
  const std::string line = StateToJson(state);
  EXPECT_EQ(line, StateToJson(*ParseCompanionState(line)));
  // Of one record each is the reader, and of no other.
  EXPECT_FALSE(ParseState(line));
  EXPECT_FALSE(ParseCompanionState(StateToJson(MakeState(1, 2, 3, 4))));
  EXPECT_THROW(ParseCompanionState(R"({"record":"state","devices":[{}]})"),
               std::runtime_error);
}

TEST(DevicesModel, RatesAreOfEachLevel) {
  DevicesModel model;
  model.Update(MakeCompanionState(1000, 8000));
  auto next = MakeCompanionState(3000, 10000);
  auto& streams = next.devices[1].applications[0].streams;
  streams.push_back({77, "198.51.100.1:1", {6000, 0}, 1500});   // since then
  streams.push_back({78, "198.51.100.1:1", {6000, 0}, 90000});  // shown since
  model.Update(next);
  model.Update(next);  // too soon for other rates
  EXPECT_EQ(3000, model.GetLinkRate().rx);
  EXPECT_EQ(1u, model.GetHistory().size());
  auto devices = model.GetDevices(TopSort::kDown);
  ASSERT_EQ(2u, devices.size());
  EXPECT_EQ(2u, devices[0].device->id);
  EXPECT_EQ(2000, devices[0].rate.rx);
  EXPECT_EQ(1000, devices[0].applications[0].rate.rx);
  EXPECT_EQ(500, devices[0].applications[0].rate.tx);
  const auto& rows = devices[0].applications[0].streams;
  EXPECT_EQ(77u, rows[0].stream->id);
  EXPECT_EQ(3000, rows[0].rate.rx);
  EXPECT_EQ(1u, rows[1].stream->id);
  EXPECT_EQ(78u, rows.back().stream->id);
  EXPECT_EQ(1u, model.GetDevices(TopSort::kName)[0].device->id);
  // The next companion counts from zero.
  model.Disconnect();
  model.Update(MakeCompanionState(1000, 7));
  EXPECT_EQ(0, model.GetLinkRate().rx);
}

TEST(DevicesLayout, LeavesOutStreamsBeforeApplicationsBeforeDevices) {
  DevicesModel model;
  model.Update(MakeCompanionState(1000, 8000));
  top_view_t view;
  const auto count = [&](const char* words) {
    const std::string text = ToText(LayOutTop(model, view));
    size_t found = 0;
    for (size_t at = 0; (at = text.find(words, at)) != std::string::npos;
         ++at) {
      ++found;
    }
    return found;
  };
  const struct {
    size_t lines;
    TopDepth depth;
    size_t streams, rests, applications, devices;
  } cases[] = {
      {0, TopDepth::kStreams, 18, 0, 4, 2},
      {22, TopDepth::kStreams, 8, 2, 4, 2},
      {14, TopDepth::kStreams, 0, 0, 4, 2},
      {10, TopDepth::kStreams, 0, 0, 0, 2},
      {0, TopDepth::kApplications, 0, 0, 4, 2},
      {0, TopDepth::kDevices, 0, 0, 0, 2},
  };
  for (const auto& c : cases) {
    view.lines = c.lines;
    view.depth = c.depth;
    EXPECT_EQ(c.streams, count("198.51.100.80:443")) << c.lines;
    EXPECT_EQ(c.rests, count("more")) << c.lines;
    EXPECT_EQ(c.applications, count("com.example") + count("unknown owners"))
        << c.lines;
    EXPECT_EQ(c.devices, count("rfcomm:")) << c.lines;
  }
}

TEST(TopModel, RatesAreOfTheLaunchersClock) {
  TopModel model;
  model.Update(MakeState(1000, 100, 900, 1000));
  model.Update(MakeState(1100, 5000, 900, 1000));  // too soon for a rate
  EXPECT_TRUE(model.GetHistory().empty());
  model.Update(MakeState(3000, 10100, 900, 1000));
  EXPECT_EQ(5000, model.GetLinkRate().rx);
  EXPECT_EQ(0, model.GetApplications(TopSort::kDown)[0].rate.rx);
  // Reports come less often than states: theirs is the time that counts, and
  // the rate stays until the next one.
  model.Update(MakeState(5000, 10100, 4900, 9000));
  model.Update(MakeState(6000, 10100, 4900, 9000));
  EXPECT_EQ(0, model.GetLinkRate().rx);
  auto applications = model.GetApplications(TopSort::kDown);
  EXPECT_EQ(10123u, applications[0].uid);
  EXPECT_EQ(2000, applications[0].rate.rx);
  applications = model.GetApplications(TopSort::kUp);
  EXPECT_EQ(8u, applications[0].uid);
  EXPECT_EQ(1000, applications[0].rate.tx);
  // No report any more.
  model.Update(MakeState(30000, 10100, 4900, 9000));
  EXPECT_EQ(0, model.GetApplications(TopSort::kDown)[0].rate.rx);
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
  const auto stream = model.GetStreams(TopSort::kDown)[0];
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
  DevicesModel devices;
  devices.Update(MakeCompanionState(1000, 8000));
  top_view_t view;
  view.has_keys = true;
  view.note = "something to be said";
  for (view.columns = 1; view.columns < 130; ++view.columns) {
    for (view.lines = 1; view.lines < 20; ++view.lines) {
      for (const auto& lines :
           {LayOutTop(model, view), LayOutTop(devices, view)}) {
        ASSERT_GE(view.lines, lines.size()) << view.columns;
        for (const auto& line : lines) {
          ASSERT_GE(view.columns, ToText(line).size()) << view.lines;
          // Nothing moves the cursor.
          ASSERT_EQ(std::string::npos, ToText(line).find('\x1B'));
        }
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
