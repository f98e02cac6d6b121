#pragma once

#include <sys/types.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace vantrel {

// The packet-filter tool did not end in time; what stands is not known.
class RulesToolHangs : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A look at the interception rules, or their removal, in a child of ours, so
// that a packet-filter tool that hangs hangs nothing else. The child does its
// work in a process group of its own and ends itself, with all of the group,
// when one command takes longer than kCommandTimeout.
class RulesTask {
 public:
  enum class Kind {
    kList,
    kRemove,  // with the daemon's own commands
  };
  static constexpr std::chrono::seconds kCommandTimeout{10};

  // Starts it. Throws std::system_error.
  explicit RulesTask(Kind kind);
  // Ends what still runs.
  ~RulesTask();
  RulesTask(const RulesTask&) = delete;
  RulesTask& operator=(const RulesTask&) = delete;

  // Readable when Advance() is to be called.
  int GetFd() const { return output_.Get(); }
  // Takes what there is, waiting if there is nothing; true once it is over.
  [[nodiscard]] bool Advance();

  // Once it is over: of a list, each rule as "TABLE: RULE"; of a removal
  // nothing. Throws RulesToolHangs, and std::runtime_error when the tables
  // cannot be read.
  std::vector<std::string> GetRules() const;

 private:
  void WaitForEnd();

  pid_t child_;          // -1 once it is over
  int wait_status_ = 0;  // the child's, once it is over
  UniqueFd output_;
  std::string text_;  // what came from the child
};

// Runs a task of this kind to its end; as GetRules().
std::vector<std::string> RunRulesTask(RulesTask::Kind kind);

// How many entries a list has while a daemon's rules are complete.
size_t GetCompleteRuleCount();

}  // namespace vantrel
