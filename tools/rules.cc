#include "tools/rules.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

#include "daemon/iptables.h"
#include "tools/system_failure.h"

namespace vantrel {
namespace {

// The tool that the daemon sets the rules with, so that both see the same
// tables where a system has several kinds.
constexpr char kIptables[] = "/system/bin/iptables-wrapper-1.0 -w";
constexpr char kChainPrefix[] = "oem_PROXY_";

// Appends the lines of |table| that name one of our chains.
void ListTable(const std::string& table, std::vector<std::string>* rules) {
  const std::string command =
      std::string(kIptables) + " -t " + table + " -S 2>&1";
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) throw SystemFailure("cannot run " + command);
  std::string last;
  char line[1024];
  while (fgets(line, sizeof(line), pipe) != nullptr) {
    last = line;
    if (!last.empty() && last.back() == '\n') last.pop_back();
    if (last.find(kChainPrefix) != std::string::npos) {
      rules->push_back(table + ": " + last);
    }
  }
  if (pclose(pipe) != 0) {
    throw std::runtime_error("cannot read the rules: " + last);
  }
}

}  // namespace

void RemoveRules() {
  const pid_t child = fork();
  if (child == 0) {
    const int nowhere = open("/dev/null", O_RDWR);
    dup2(nowhere, STDIN_FILENO);
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    // The caller may have blocked signals; the commands are to have them.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    TeardownIptables(0, false);
    _exit(0);
  }
  if (child > 0) waitpid(child, nullptr, 0);
}

std::vector<std::string> ListRules() {
  std::vector<std::string> rules;
  ListTable("nat", &rules);
  ListTable("mangle", &rules);
  return rules;
}

}  // namespace vantrel
