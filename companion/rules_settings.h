#pragma once

#include <string>

namespace vantrel {

// What the command line says of rules.
struct rules_settings_t {
  std::string file;        // empty: there are no rules
  std::string quota_file;  // empty: quotas begin anew with the program
  bool is_metered = false;
};

}  // namespace vantrel
