#include "support/command_line.h"

#include <gtest/gtest.h>

#include <iterator>
#include <sstream>

namespace vantrel {
namespace {

// What is said about |line|; "" when it is right.
std::string Parse(const std::string& line) {
  CLI::App app("A program.", "program");
  AddVersion(&app);
  app.require_subcommand(1);
  std::string link, log;
  int protocol = 0;
  CLI::App* const ping = app.add_subcommand("ping", "A command.");
  ping->add_option("LINK", link)->required();
  ping->add_option("--protocol", protocol)->check(CLI::Range(1, 20));
  auto* const group = ping->add_option_group("Group");
  group->add_option("--log", log);
  group->require_option(1);
  ping->add_flag("--json", "A flag.");
  app.add_subcommand("pull", "Another one.");

  std::istringstream stream(line);
  const std::vector<std::string> words(
      std::istream_iterator<std::string>(stream), {});
  std::vector<const char*> argv = {"program"};
  for (const std::string& word : words) argv.push_back(word.c_str());
  std::ostringstream out, err;
  const auto status = ParseCommandLine(&app, static_cast<int>(argv.size()),
                                       argv.data(), out, err);
  EXPECT_EQ(err.str().empty() ? 0 : kUsageStatus, status.value_or(0)) << line;
  return out.str().empty() ? err.str() : "out: " + out.str();
}

TEST(CommandLine, NamesTheWordThatIsWrong) {
  const struct {
    const char* line;
    const char* text;
  } cases[] = {
      {"ping --log x --protocol 5 y", ""},
      {"ping --log=x --protocol=5 --json -- -y", ""},
      {"", "A subcommand is required"},
      {"pnig", "pnig: no such command, did you mean ping?"},
      {"fly", "fly: no such command"},
      {"--json ping", "--json: no such option"},
      {"ping --protocl 5 x",
       "--protocl: no such option, did you mean --protocol?"},
      {"ping --lgo=5", "--lgo: no such option, did you mean --log?"},
      // What looks like an option is the value of one.
      {"ping --log --jsn", "LINK is required"},
      {"ping -j", "-j: no such option"},
      {"ping x y --log z", "The following argument was not expected: y"},
      {"ping --protocol 50", "--protocol: Value 50 not in range 1 to 20"},
      {"ping --x\x1b[2J\xff", "--x\\x1b[2J\\xff: no such option"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(*c.text == '\0'
                  ? ""
                  : std::string("program: ") + c.text + " (see --help)\n",
              Parse(c.line));
  }
  EXPECT_EQ("out: program " VANTREL_VERSION "\n", Parse("--version"));
  EXPECT_NE(std::string::npos, Parse("ping --jsn --help").find("--protocol"));
}

}  // namespace
}  // namespace vantrel
