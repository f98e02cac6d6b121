#include "support/command_line.h"

#include <algorithm>

#include "common/printable.h"

namespace vantrel {
namespace {

// How many letters have to be left out, put in, replaced or exchanged with
// their neighbour to make |b| of |a|.
size_t CountSlips(const std::string& a, const std::string& b) {
  std::vector<std::vector<size_t>> slips(a.size() + 1,
                                         std::vector<size_t>(b.size() + 1));
  for (size_t i = 0; i <= a.size(); ++i) {
    for (size_t j = 0; j <= b.size(); ++j) {
      if (i == 0 || j == 0) {
        slips[i][j] = i + j;
        continue;
      }
      const size_t changed = a[i - 1] == b[j - 1] ? 0 : 1;
      slips[i][j] = std::min({slips[i - 1][j] + 1, slips[i][j - 1] + 1,
                              slips[i - 1][j - 1] + changed});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        slips[i][j] = std::min(slips[i][j], slips[i - 2][j - 2] + 1);
      }
    }
  }
  return slips[a.size()][b.size()];
}

using Names = std::vector<std::string>;

// |word| is no |kind|; says which of |names| may have been meant.
std::string DescribeUnknown(const std::string& word, const char* kind,
                            const Names& names) {
  std::string text = word + ": no such " + kind;
  const auto nearest = std::min_element(
      names.begin(), names.end(), [&word](const auto& a, const auto& b) {
        return CountSlips(word, a) < CountSlips(word, b);
      });
  if (nearest == names.end() ||
      CountSlips(word, *nearest) > std::min<size_t>(2, word.size() / 2)) {
    return text;
  }
  return text + ", did you mean " + *nearest + "?";
}

// The commands of |app|, or the groups of options, which have no names.
std::vector<CLI::App*> GetParts(CLI::App* app, bool is_group) {
  return app->get_subcommands([is_group](const CLI::App* part) {
    return part->get_name().empty() == is_group;
  });
}

Names GetOptionNames(CLI::App* app) {
  Names names;
  for (const CLI::Option* const option :
       app->get_options([](const CLI::Option*) { return true; })) {
    for (const auto& name : option->get_lnames()) names.push_back("--" + name);
  }
  for (CLI::App* const group : GetParts(app, true)) {
    for (const std::string& name : GetOptionNames(group)) names.push_back(name);
  }
  return names;
}

// Finds the first option or command that |app| does not have, as the parser
// goes through the words. Options of a command stand behind it, in it.
class UnknownWord {
 public:
  UnknownWord(CLI::App* app, const std::vector<std::string>& words) {
    CLI::App* command = app;
    for (size_t i = 0; i < words.size() && fault_.empty(); ++i) {
      const std::string& word = words[i];
      if (word == "--") return;
      if (word.size() > 1 && word.front() == '-') {
        if (TakesNext(command, word)) ++i;
      } else {
        command = Enter(command, word);
      }
    }
  }

  // In words, or empty.
  const std::string& GetFault() const { return fault_; }

 private:
  // Whether the word behind the option is its value.
  bool TakesNext(CLI::App* command, const std::string& word) {
    const size_t equals = word.find('=');
    const bool is_long = word.compare(0, 2, "--") == 0;
    const std::string name =
        is_long ? word.substr(0, equals) : word.substr(0, 2);
    const CLI::Option* const option = command->get_option_no_throw(name);
    if (option == nullptr) {
      fault_ = DescribeUnknown(name, "option", GetOptionNames(command));
      return false;
    }
    const bool has_value =
        is_long ? equals != std::string::npos : word.size() > 2;
    return !has_value && option->get_items_expected_max() > 0;
  }

  // What |word| leads to: a command, or |command| itself where it has none.
  CLI::App* Enter(CLI::App* command, const std::string& word) {
    Names names;
    for (CLI::App* const part : GetParts(command, false)) {
      if (part->get_name() == word) return part;
      names.push_back(part->get_name());
    }
    if (!names.empty()) fault_ = DescribeUnknown(word, "command", names);
    return command;
  }

  std::string fault_;
};

bool AsksForHelp(const std::vector<std::string>& words) {
  return std::any_of(words.begin(), words.end(), [](const auto& word) {
    return word == "--help" || word == "-h" || word == "--version";
  });
}

}  // namespace

void AddVersion(CLI::App* app) {
  app->set_version_flag("--version",
                        app->get_name() + " " + std::string(VANTREL_VERSION),
                        "Print the version and exit");
}

std::optional<int> ParseCommandLine(CLI::App* app, int argc,
                                    const char* const* argv, std::ostream& out,
                                    std::ostream& err,
                                    const std::function<void()>& finish) {
  const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  try {
    const UnknownWord unknown(app, words);
    if (!unknown.GetFault().empty() && !AsksForHelp(words)) {
      throw CLI::ParseError(unknown.GetFault(), kUsageStatus);
    }
    app->parse(argc, argv);
    finish();
    return std::nullopt;
  } catch (const CLI::CallForHelp&) {
    out << app->help();
    return 0;
  } catch (const CLI::CallForVersion& version) {
    out << version.what() << "\n";
    return 0;
  } catch (const CLI::ParseError& error) {
    PrintFailure(app->get_name(), error.what() + std::string(" (see --help)"),
                 err);
    return kUsageStatus;
  }
}

CLI::ValidationError WrongValue(const std::string& option,
                                const std::string& value,
                                const std::string& form) {
  return CLI::ValidationError(option, "'" + value + "' is not " + form);
}

void PrintFailure(const std::string& program, const std::string& text,
                  std::ostream& err) {
  err << EscapeControls(program + ": " + text) << std::endl;
}

}  // namespace vantrel
