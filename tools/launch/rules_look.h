#pragma once

#include <asio/io_context.hpp>
#include <functional>
#include <optional>
#include <string>

#include "support/descriptor.h"
#include "tools/rules.h"

namespace vantrel {

// One look at the interception rules beside everything else: the packet-filter
// tool takes its time.
class RulesLook {
 public:
  // Begins. |warn| is called at most once, when rules are missing or cannot be
  // seen. Throws std::system_error when the look cannot begin.
  RulesLook(asio::io_context& loop,
            std::function<void(const std::string& text)> warn);

 private:
  void Take();
  void WarnOfMissingRules();

  const std::function<void(const std::string& text)> warn_;
  // While it runs, and a duplicate of its descriptor.
  std::optional<RulesTask> task_;
  std::optional<Descriptor> output_;
};

}  // namespace vantrel
