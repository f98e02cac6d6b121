#include "tools/launch/rules_look.h"

#include <exception>
#include <utility>

namespace vantrel {

RulesLook::RulesLook(asio::io_context& loop,
                     std::function<void(const std::string& text)> warn)
    : warn_(std::move(warn)),
      task_(std::in_place, RulesTask::Kind::kList),
      output_(std::in_place, loop, Duplicate(task_->GetFd()),
              [this] { Take(); }) {
  output_->WaitReadable();
}

void RulesLook::Take() {
  if (!task_->Advance()) return output_->WaitReadable();
  WarnOfMissingRules();
  task_.reset();
  output_.reset();
}

void RulesLook::WarnOfMissingRules() {
  try {
    const size_t complete = GetCompleteRuleCount();
    const size_t found = task_->GetRules().size();
    if (found >= complete) return;
    warn_("warning: " + std::to_string(found) + " of " +
          std::to_string(complete) +
          " interception rules stand: applications have no network, or not "
          "all of it; the daemon's log says why");
  } catch (const std::exception& e) {
    warn_(std::string("warning: ") + e.what());
  }
}

}  // namespace vantrel
