#include "companion/options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <vector>

namespace vantrel {
namespace {

struct Parsed {
  std::optional<int> exit_status;
  Options options;
  std::string out;
  std::string err;
};

Parsed Parse(const std::string& arguments) {
  std::istringstream words("vantrel-companion " + arguments);
  std::vector<std::string> argv;
  for (std::string word; words >> word;) argv.push_back(word);
  std::vector<const char*> pointers;
  for (const std::string& word : argv) pointers.push_back(word.c_str());
  Parsed parsed;
  std::ostringstream out, err;
  parsed.exit_status = ParseOptions(static_cast<int>(pointers.size()),
                                    pointers.data(), &parsed.options, out, err);
  parsed.out = out.str();
  parsed.err = err.str();
  return parsed;
}

TEST(OptionsTest, TakesEverything) {
  const Parsed all = Parse(
      "--listen tcp:[::1]:0 --header --max-tx 990 --network -3,metered "
      "--dns 127.0.0.1:5353 --build-info mine --verbose --protocol 5");
  ASSERT_FALSE(all.exit_status) << all.err;
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

  const Parsed few = Parse("--fd 0 --network 7 --dns 127.0.0.1");
  ASSERT_FALSE(few.exit_status) << few.err;
  EXPECT_EQ(few.options.protocol, 20);
  EXPECT_EQ(few.options.fd, 0);
  EXPECT_FALSE(few.options.network->is_metered);
  EXPECT_EQ(few.options.dns_server->ToString(), "127.0.0.1:53");
}

TEST(OptionsTest, RefusesWithOneLine) {
  for (const char* arguments : {"",
                                "--fd",
                                "--fd 12345",
                                "--fd x",
                                "--fd 0 --listen unix:/tmp/s",
                                "--fd 0 more",
                                "--fd 0 --unknown",
                                "--fd 0 --protocol 2",
                                "--fd 0 --max-tx 9",
                                "--fd 0 --header --max-tx 65536",
                                "--fd 0 --network 7,free",
                                "--fd 0 --network x",
                                "--fd 0 --dns ::1",
                                "--fd 0 --dns 1.2.3.4:0",
                                "--fd 0 --dns 1.2.3.4:65536",
                                "--listen unix:",
                                "--listen /tmp/s",
                                "--listen tcp:host",
                                "--listen tcp::80",
                                "--listen tcp:host:65536",
                                "--listen tcp:host:http",
                                "--listen rfcomm:0",
                                "--listen rfcomm:31"}) {
    const Parsed parsed = Parse(arguments);
    EXPECT_EQ(parsed.exit_status, 2) << arguments;
    EXPECT_EQ(parsed.err.rfind("vantrel-companion: ", 0), 0u) << parsed.err;
    EXPECT_EQ(std::count(parsed.err.begin(), parsed.err.end(), '\n'), 1)
        << parsed.err;
  }
  EXPECT_EQ(Parse("--help").exit_status, 0);
  EXPECT_NE(Parse("--help").out.find("--listen"), std::string::npos);
  EXPECT_EQ(Parse("--version").out, "vantrel-companion 1.0.0\n");
}

}  // namespace
}  // namespace vantrel
