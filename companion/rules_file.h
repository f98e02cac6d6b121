#pragma once

#include <stddef.h>

#include <string>
#include <string_view>
#include <vector>

#include "companion/rules.h"

namespace vantrel {

// More than a hundred thousand rules.
constexpr size_t kMaxRulesFileBytes = 16 << 20;

// What became of a rules file. Lines are for people: "FILE:LINE: ...", without
// control characters.
struct rules_reading_t {
  rules_t rules;  // of no use where there are errors
  std::vector<std::string> errors;
  std::vector<std::string> warnings;
};

// Reads |text|, in TOML; |file| names it in lines.
rules_reading_t ReadRules(std::string_view text, const std::string& file);

// The same with what a regular file has.
rules_reading_t ReadRulesFile(const std::string& path);

}  // namespace vantrel
