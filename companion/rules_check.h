#pragma once

#include <optional>
#include <ostream>
#include <string>

#include "companion/rule_match.h"

namespace vantrel {

// Somebody who wants to know what the rules say of it.
struct rules_question_t {
  std::string package;          // empty: not said
  std::optional<uint32_t> uid;  // none: not said
  bool has_owner = true;
  uint32_t address = 0;  // host byte order
  uint16_t port = 0;
};

struct rules_check_t {
  std::string file;
  std::optional<rules_question_t> question;
};

// Of "unknown", a UID or a package, and of ADDRESS:PORT. None for anything
// else.
std::optional<rules_question_t> ParseQuestion(const std::string& application,
                                              const std::string& destination);

// Prints what the file says, or the rules that the question leads to, and
// warnings and errors on |err|. The program's exit status.
int CheckRules(const rules_check_t& check, bool is_metered, std::ostream& out,
               std::ostream& err);

}  // namespace vantrel
