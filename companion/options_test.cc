#include "companion/options.h"

#include <gmock/gmock.h>

#include <iterator>
#include <sstream>
#include <vector>

namespace vantrel {
namespace {

struct Parsed {
  std::optional<int> exit_status;
  Options options;
  std::ostringstream out, err;
};

Parsed Parse(const std::string& arguments) {
  std::istringstream words("vantrel-companion " + arguments);
  const std::vector<std::string> argv(std::istream_iterator<std::string>(words),
                                      {});
  std::vector<const char*> pointers;
  for (const std::string& word : argv) pointers.push_back(word.c_str());
  Parsed p;
  p.exit_status = ParseOptions(static_cast<int>(pointers.size()),
                               pointers.data(), &p.options, p.out, p.err);
  return p;
}

TEST(OptionsTest, TakesEverything) {
  const Parsed all = Parse(
      "--listen tcp:[::1]:0 --header --max-tx 990 --network -3,metered "
      "--dns 127.0.0.1:5353 --build-info mine --verbose --protocol 5");
  ASSERT_FALSE(all.exit_status) << all.err.str();
  const Options& options = all.options;
  EXPECT_EQ(options.protocol, 5);
  EXPECT_EQ(options.listen->path_or_host, "::1");
  EXPECT_EQ(options.listen->port, "0");
  EXPECT_TRUE(options.send_header && options.verbose);
  EXPECT_EQ(options.max_tx_size, 990);
  EXPECT_EQ(options.network->id, -3);
  EXPECT_TRUE(options.network->is_metered);
  EXPECT_EQ(options.dns_server->ToString(), "127.0.0.1:5353");
  EXPECT_EQ(options.build_info, "mine");

  EXPECT_EQ(Parse("--fd 0").options.protocol, 20);
}

TEST(OptionsTest, RefusesWithOneLine) {
  const std::pair<const char*, std::vector<const char*>> cases[] = {
      {"", {"", "--fd", "--fd 12345", "--fd x"}},
      {"--fd 0 ",
       {"--listen unix:/tmp/s", "more", "--unknown", "--protocol 2",
        "--max-tx 9", "--header --max-tx 65536"}},
      {"--fd 0 --network ", {"7,free", "x"}},
      {"--fd 0 --dns ", {"::1", "1.2.3.4:0", "1.2.3.4:65536"}},
      {"--listen ",
       {"unix:", "/tmp/s", "tcp:host", "tcp::80", "tcp:host:65536",
        "tcp:host:http", "rfcomm:0", "rfcomm:31"}},
  };
  for (const auto& [common, endings] : cases) {
    for (const char* ending : endings) {
      const Parsed parsed = Parse(std::string(common) + ending);
      EXPECT_EQ(parsed.exit_status, 2) << common << ending;
      EXPECT_THAT(parsed.err.str(),
                  testing::MatchesRegex("vantrel-companion: [^\n]*\n"));
    }
  }
  EXPECT_EQ(Parse("--help").exit_status, 0);
  EXPECT_NE(Parse("--help").out.str().find("--listen"), std::string::npos);
}

}  // namespace
}  // namespace vantrel
