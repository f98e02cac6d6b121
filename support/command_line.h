// What the programs have in common where they read their command line: help,
// the version, and one line about what is wrong.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <map>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "support/exit_status.h"

namespace vantrel {

// Gives |app|, which has the program's name, its --version.
void AddVersion(CLI::App* app);

// Reads the command line into what |app|'s options point to, then calls
// |finish|, which may look at all of it and throw a CLI::ParseError. A value is
// the exit status of a program that has nothing to do: 0 after --help or
// --version on |out|, kUsageStatus after one line on |err|. That line names the
// word that is wrong: an option or a command that does not exist comes before
// anything that is missing because of it.
[[nodiscard]] std::optional<int> ParseCommandLine(
    CLI::App* app, int argc, const char* const* argv, std::ostream& out,
    std::ostream& err, const std::function<void()>& finish = [] {});

// To throw for a |value| that |option| cannot take; |form| is what it must be.
CLI::ValidationError WrongValue(const std::string& option,
                                const std::string& value,
                                const std::string& form);

// One line on |err|, whatever stands in |text|.
void PrintFailure(const std::string& program, const std::string& text,
                  std::ostream& err);

// An option whose value is one of a few words, in upper or lower case.
template <typename Value>
CLI::Option* AddChoice(CLI::App* app, const std::string& name,
                       const std::string& help,
                       const std::map<std::string, Value>& values,
                       const std::string& standard, Value* out) {
  std::vector<std::string> words;
  for (const auto& value : values) words.push_back(value.first);
  return app
      ->add_option_function<std::string>(
          name,
          [values, out](const std::string& word) { *out = values.at(word); },
          help)
      ->transform(CLI::IsMember(words, CLI::ignore_case))
      ->type_name("WORD")
      ->default_str(standard);
}

}  // namespace vantrel
