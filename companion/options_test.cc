#include "companion/options.h"

#include <gmock/gmock.h>
#include <stdlib.h>
#include <unistd.h>

#include <iterator>
#include <sstream>
#include <vector>

namespace vantrel {
namespace {

std::optional<int> Parse(const std::string& line, companion_options_t* options,
                         std::string* error) {
  std::istringstream stream(line);
  const std::vector<std::string> words(
      std::istream_iterator<std::string>(stream), {});
  std::vector<const char*> argv = {"vantrel-companion"};
  for (const std::string& word : words) argv.push_back(word.c_str());
  std::ostringstream out, err;
  const auto status = ParseOptions(static_cast<int>(argv.size()), argv.data(),
                                   options, out, err);
  *error = err.str();
  return status;
}

TEST(OptionsTest, KeepsTheOrderOfRules) {
  companion_options_t options;
  std::string error;
  EXPECT_EQ(std::nullopt,
            Parse("--allow 1.0.0.0/8 --listen unix:a --deny 2.0.0.0/8 --allow "
                  "3.0.0.0/8 --deny 4.0.0.0/8 --listen rfcomm:1",
                  &options, &error))
      << error;
  ASSERT_EQ(4u, options.destination_rules.size());
  for (uint32_t i = 0; i < 4; ++i) {
    EXPECT_EQ((i + 1) << 24, options.destination_rules[i].network);
    EXPECT_EQ(i % 2 == 0, options.destination_rules[i].allows);
  }
  EXPECT_EQ(2u, options.listen.size());
}

TEST(OptionsTest, ListensByItself) {
  const struct {
    std::string line;
    const char* runtime_directory;  // null: the variable is not set
    std::vector<std::string> listen;
  } cases[] = {
      {"",
       "/run/user/7",
       {"bluetooth", "unix:/run/user/7/vantrel-companion.sock"}},
      {"", nullptr,
       geteuid() == 0
           ? std::vector<std::string>{"bluetooth",
                                      "unix:/run/vantrel-companion.sock"}
           : std::vector<std::string>{"bluetooth"}},
      {"--listen bluetooth", "/run/user/7", {"bluetooth"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.line);
    c.runtime_directory == nullptr
        ? unsetenv("XDG_RUNTIME_DIR")
        : setenv("XDG_RUNTIME_DIR", c.runtime_directory, 1);
    companion_options_t options;
    std::string error;
    EXPECT_EQ(std::nullopt, Parse(c.line, &options, &error)) << error;
    std::vector<std::string> listen;
    for (const auto& address : options.listen) listen.push_back(address.text);
    EXPECT_EQ(c.listen, listen);
    EXPECT_EQ(c.line.empty() && listen.size() > 1, options.listens_by_default);
  }
}

TEST(OptionsTest, RefusesWithOneLine) {
  for (const char* const line : {"--fd",
                                 "--fd 12345",
                                 "--fd x",
                                 "--fd 0 more",
                                 "--fd 0 --listen unix:/tmp/s",
                                 "--fd 0 --protocol 2",
                                 "--fd 0 --max-tx 9",
                                 "--fd 0 --header --max-tx 65536",
                                 "--fd 0 --network 7,free",
                                 "--fd 0 --dns ::1",
                                 "--fd 0 --dns systems",
                                 "--fd 0 --dns 1.2.3.4:0",
                                 "--fd 0 --dns 1.2.3.4:65536",
                                 "--fd 0 --allow 1.2.3.4/5",
                                 "--fd 0 --deny host",
                                 "--fd 0 --allow 1.2.3.4 1.2.3.5",
                                 "--fd 0 --max-links 0",
                                 "--fd 0 --security none",
                                 "--fd 0 --log-level loud",
                                 "--fd 0 --quota-file q",
                                 "--rules r --check-rules r",
                                 "--explain com.example 1.2.3.4:5",
                                 "--check-rules r --explain com.example",
                                 "--check-rules r --explain x 1.2.3.4",
                                 "--check-rules r --explain x 1.2.3.4:65536",
                                 "--fd 0 --log-format xml",
                                 "--listen unix:/tmp/s --listen x",
                                 "--listen rfcomm:0",
                                 "--security high",
                                 "--listen bluetooth --listen bluetooth:1"}) {
    SCOPED_TRACE(line);
    companion_options_t options;
    std::string error;
    EXPECT_EQ(2, Parse(line, &options, &error));
    EXPECT_THAT(error, testing::MatchesRegex("vantrel-companion: [^\n]*\n"));
  }
}

}  // namespace
}  // namespace vantrel
