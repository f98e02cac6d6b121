#include "tools/rules.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>

#include <sstream>
#include <stdexcept>

#include "daemon/interception_rules.h"
#include "daemon/iptables.h"
#include "support/system_failure.h"
#include "tools/process_group.h"

namespace vantrel {
namespace {

constexpr int kResultFd = STDERR_FILENO + 1;

void EndGroup(int /*signal*/) { kill(0, SIGKILL); }

void StartTimeout(int /*signal*/) {
  alarm(static_cast<uint32_t>(RulesTask::kCommandTimeout.count()));
}

// Each command gets the whole time: the end of one starts it for the next.
void LimitCommands() {
  struct sigaction action = {};
  action.sa_flags = SA_RESTART;
  action.sa_handler = EndGroup;
  sigaction(SIGALRM, &action, nullptr);
  action.sa_handler = StartTimeout;
  sigaction(SIGCHLD, &action, nullptr);
  StartTimeout(0);
}

// Of all descriptors the child keeps only |result|: a link or a lock that it
// held open would outlive its owner.
void KeepOnly(int result) {
  const int nowhere = open("/dev/null", O_RDWR);
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) dup2(nowhere, fd);
  if (result != kResultFd) dup2(result, kResultFd);
  fcntl(kResultFd, F_SETFD, FD_CLOEXEC);
  close_range(kResultFd + 1, ~0U, 0);
}

void WriteAll(const std::string& text) {
  size_t at = 0;
  while (at < text.size()) {
    const ssize_t count = write(kResultFd, text.data() + at, text.size() - at);
    if (count < 0 && errno != EINTR) return;
    if (count > 0) at += static_cast<size_t>(count);
  }
}

// Appends the lines of |table| that name |chain|. False when the table cannot
// be read; |rules| then ends with the reason.
bool ListTable(const std::string& table, const char* chain,
               std::string* rules) {
  const std::string command =
      std::string(kIptablesWrapper) + " -w -t " + table + " -S 2>&1";
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) {
    *rules = "cannot run " + command;
    return false;
  }
  std::string last;
  char line[1024];
  while (fgets(line, sizeof(line), pipe) != nullptr) {
    last = line;
    if (last.find(chain) != std::string::npos) *rules += table + ": " + last;
  }
  if (pclose(pipe) == 0) return true;
  *rules = last;
  return false;
}

int List() {
  std::string rules;
  const bool is_read = ListTable(kTcpTable, kTcpChain, &rules) &&
                       ListTable(kUdpTable, kUdpChain, &rules);
  WriteAll(rules);
  return is_read ? 0 : 1;
}

[[noreturn]] void RunChild(RulesTask::Kind kind, int result) {
  setpgid(0, 0);
  KeepOnly(result);
  // The caller's handlers are not for this process.
  for (const int number : {SIGINT, SIGTERM, SIGPIPE}) signal(number, SIG_DFL);
  LimitCommands();
  // The caller may have blocked signals; the commands are to have them.
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  if (kind == RulesTask::Kind::kList) _exit(List());
  TeardownIptables(0, false);
  _exit(0);
}

}  // namespace

RulesTask::RulesTask(Kind kind) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw SystemFailure("no pipe");
  output_.Reset(ends[0]);
  const UniqueFd input(ends[1]);
  child_ = fork();
  if (child_ < 0) throw SystemFailure("no new process");
  if (child_ == 0) RunChild(kind, input.Get());
  setpgid(child_, child_);  // whichever of the two comes first
}

RulesTask::~RulesTask() {
  if (child_ < 0) return;
  kill(-child_, SIGKILL);
  WaitForEnd();
}

bool RulesTask::Advance() {
  char bytes[4096];
  const ssize_t count = read(output_.Get(), bytes, sizeof(bytes));
  if (count < 0 && errno == EINTR) return false;
  if (count > 0) {
    text_.append(bytes, static_cast<size_t>(count));
    return false;
  }
  // The child ends as soon as it has closed the pipe, which it does by ending.
  WaitForEnd();
  child_ = -1;
  return true;
}

void RulesTask::WaitForEnd() {
  siginfo_t info;
  while (waitid(P_PID, static_cast<id_t>(child_), &info, WEXITED | WNOWAIT) !=
             0 &&
         errno == EINTR) {
  }
  static_cast<void>(!ReapGroup(child_, &wait_status_));
}

std::vector<std::string> RulesTask::GetRules() const {
  if (WIFSIGNALED(wait_status_)) {
    throw RulesToolHangs(std::string(kIptablesWrapper) +
                         " did not end within " +
                         std::to_string(kCommandTimeout.count()) +
                         " s and was killed; rules may be left");
  }
  if (WEXITSTATUS(wait_status_) != 0) {
    throw std::runtime_error("cannot read the rules: " +
                             text_.substr(0, text_.find('\n')));
  }
  std::vector<std::string> rules;
  std::istringstream lines(text_);
  for (std::string line; std::getline(lines, line);) rules.push_back(line);
  return rules;
}

std::vector<std::string> RunRulesTask(RulesTask::Kind kind) {
  RulesTask task(kind);
  while (!task.Advance()) {
  }
  return task.GetRules();
}

size_t GetCompleteRuleCount() { return GetInterceptionRules(0, 0).size(); }

}  // namespace vantrel
