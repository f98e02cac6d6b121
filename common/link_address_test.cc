#include "common/link_address.h"

#include <gtest/gtest.h>

namespace vantrel {
namespace {

// What was understood, or "!" and why not.
std::string Parse(const std::string& text, LinkSide side) {
  std::string reason;
  const auto link = ParseLinkAddress(text, side, &reason);
  if (!link) return reason.empty() ? "no reason" : "!";
  EXPECT_EQ(text, link->text);
  switch (link->kind) {
    case link_address_t::Kind::kUnix:
      return "path " + link->path;
    case link_address_t::Kind::kTcp:
      return link->host + " port " + link->port;
    case link_address_t::Kind::kRfcomm:
      return (link->bluetooth ? ToText(*link->bluetooth) : "") + " channel " +
             std::to_string(link->channel);
    case link_address_t::Kind::kBluetooth:
      return link->bluetooth ? ToText(*link->bluetooth) : "any machine";
    case link_address_t::Kind::kFd:
      return "descriptor " + std::to_string(link->fd);
  }
  return "";
}

TEST(LinkAddress, IsReadAlikeAtBothEndsWhereItMeansTheSame) {
  const std::string longest(107, 'x');
  const struct {
    std::string text;
    std::string to_connect;
    std::string to_listen;
  } cases[] = {
      {"unix:/run/l", "path /run/l", "path /run/l"},
      {"unix:@name:1", "path @name:1", "path @name:1"},
      {"unix:" + longest, "path " + longest, "path " + longest},
      {"unix:" + longest + "x", "!", "!"},
      {"unix:", "!", "!"},
      {"unix:@", "!", "!"},
      {"tcp:host.example:80", "host.example port 80", "host.example port 80"},
      {"tcp:[fe80::1%eth0]:65535", "fe80::1%eth0 port 65535",
       "fe80::1%eth0 port 65535"},
      {"tcp:127.0.0.1:0", "!", "127.0.0.1 port 0"},
      {"tcp:::1:80", "!", "!"},
      {"tcp:[::1]80", "!", "!"},
      {"tcp:[]:80", "!", "!"},
      {"tcp::80", "!", "!"},
      {"tcp:h:65536", "!", "!"},
      {"tcp:h:+80", "!", "!"},
      {"tcp:h:http", "!", "!"},
      {"rfcomm:01:23:45:67:89:aF/30", "01:23:45:67:89:AF channel 30", "!"},
      {"rfcomm:01:23:45:67:89:AB/31", "!", "!"},
      {"rfcomm:01:23:45:67:89:A/1", "!", "!"},
      {"rfcomm:01:23:45:67:89-AB/1", "!", "!"},
      {"rfcomm:1", "!", " channel 1"},
      {"rfcomm:0", "!", "!"},
      {"bluetooth", "any machine", "any machine"},
      {"bluetooth:01:23:45:67:89:aF", "01:23:45:67:89:AF", "!"},
      {"bluetooth:01:23:45:67:89:AB/1", "!", "!"},
      {"bluetooth:", "!", "!"},
      {"fd:0", "descriptor 0", "!"},
      {"fd:-1", "!", "!"},
      {"fd:", "!", "!"},
      {"unix", "!", "!"},
      {"/run/l", "!", "!"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(c.to_connect, Parse(c.text, LinkSide::kConnect));
    EXPECT_EQ(c.to_listen, Parse(c.text, LinkSide::kListen));
  }
}

TEST(LinkAddress, AnAbstractNameHasAZeroInFrontAndNoneBehind) {
  sockaddr_un address;
  EXPECT_EQ(sizeof(address.sun_family) + 2, ToSocketAddress("@n", &address));
  EXPECT_EQ(std::string("\0n", 2), std::string(address.sun_path, 2));
  EXPECT_EQ(sizeof(address.sun_family) + 3, ToSocketAddress("/n", &address));
  EXPECT_STREQ("/n", address.sun_path);
}

}  // namespace
}  // namespace vantrel
