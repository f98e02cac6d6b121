#include "companion/options.h"

#include <gmock/gmock.h>

#include <iterator>
#include <sstream>
#include <vector>

namespace vantrel {
namespace {

TEST(OptionsTest, RefusesWithOneLine) {
  for (const char* const line : {"",
                                 "--fd",
                                 "--fd 12345",
                                 "--fd x",
                                 "--fd 0 more",
                                 "--fd 0 --listen unix:/tmp/s",
                                 "--fd 0 --protocol 2",
                                 "--fd 0 --max-tx 9",
                                 "--fd 0 --header --max-tx 65536",
                                 "--fd 0 --network 7,free",
                                 "--fd 0 --dns ::1",
                                 "--fd 0 --dns 1.2.3.4:0",
                                 "--fd 0 --dns 1.2.3.4:65536",
                                 "--fd 0 --allow 1.2.3.4/5",
                                 "--fd 0 --deny host",
                                 "--fd 0 --max-links 0",
                                 "--fd 0 --security none",
                                 "--fd 0 --log-level loud",
                                 "--fd 0 --log-format xml",
                                 "--listen unix:/tmp/s --listen x",
                                 "--listen unix:",
                                 "--listen /tmp/s",
                                 "--listen tcp::80",
                                 "--listen tcp:host:65536",
                                 "--listen tcp:host:http",
                                 "--listen rfcomm:0",
                                 "--listen rfcomm:31"}) {
    SCOPED_TRACE(line);
    std::istringstream stream(line);
    const std::vector<std::string> words(
        std::istream_iterator<std::string>(stream), {});
    std::vector<const char*> argv = {"vantrel-companion"};
    for (const std::string& word : words) argv.push_back(word.c_str());
    Options options;
    std::ostringstream out, err;
    EXPECT_EQ(2, ParseOptions(static_cast<int>(argv.size()), argv.data(),
                              &options, out, err));
    EXPECT_THAT(err.str(),
                testing::MatchesRegex("vantrel-companion: [^\n]*\n"));
  }
}

}  // namespace
}  // namespace vantrel
