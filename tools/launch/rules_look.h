#pragma once

#include <asio/posix/stream_descriptor.hpp>
#include <functional>
#include <optional>
#include <string>

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

  // Calls nobody any more. Must be called while the loop stands, and this must
  // stay until the loop's pending handlers have run.
  void Stop();

 private:
  void Await();
  void Take();
  void WarnOfMissingRules();

  const std::function<void(const std::string& text)> warn_;
  std::optional<RulesTask> task_;          // while it runs
  asio::posix::stream_descriptor output_;  // the task's
};

}  // namespace vantrel
