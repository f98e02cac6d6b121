#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace vantrel {

// What became of a command.
struct command_result_t {
  // That of the program; 127 when there is none of this name; -1 when it was
  // killed, also because it did not end in time.
  int exit_status = -1;
  std::string output;  // both streams, not more than 1 MiB
  std::string fault;   // why it failed, in one line; empty when it did not
};

// Bounds what one command may take.
constexpr std::chrono::seconds kProgramTimeout{5};

// Runs the program |words| with |input| as its standard input, and waits for
// its end. It is looked up in PATH, and where the system's own tools are; it
// speaks English. It has a process group of its own, so that the keys of a
// terminal do not reach it, and nothing of that group is left afterwards.
command_result_t RunCommand(const std::vector<std::string>& words,
                            const std::string& input = "",
                            std::chrono::seconds timeout = kProgramTimeout);

// The path of the program |name|, as RunCommand() finds it; empty when there is
// none.
std::string FindProgram(const std::string& name);

}  // namespace vantrel
