#include "tools/command.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <system_error>

#include "common/unique_fd.h"
#include "support/steady_time.h"
#include "support/system_failure.h"
#include "tools/process_group.h"

namespace vantrel {
namespace {

constexpr int kNotFound = 127;
constexpr size_t kMaxOutputBytes = 1 << 20;

// A user who became root by su has a PATH without the tools of root.
std::string GetPath() {
  const char* const path = getenv("PATH");
  return std::string(path == nullptr ? "/usr/bin:/bin" : path) +
         ":/usr/sbin:/sbin";
}

// A file that needs no reader while it is written; |input| is short.
UniqueFd MakeInput(const std::string& input) {
  UniqueFd file(memfd_create("input", MFD_CLOEXEC));
  if (file.Get() < 0 ||
      write(file.Get(), input.data(), input.size()) !=
          static_cast<ssize_t>(input.size()) ||
      lseek(file.Get(), 0, SEEK_SET) != 0) {
    throw SystemFailure("no input for a command");
  }
  return file;
}

[[noreturn]] void BecomeProgram(const char* program, char* const* words,
                                int input, int output) {
  setpgid(0, 0);
  for (const int number : {SIGINT, SIGTERM, SIGPIPE, SIGCHLD}) {
    signal(number, SIG_DFL);
  }
  // Of a resolver everybody reads what it writes.
  umask(022);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  dup2(input, STDIN_FILENO);
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  close_range(STDERR_FILENO + 1, ~0U, 0);
  setenv("LC_ALL", "C", 1);
  setenv("PATH", GetPath().c_str(), 1);
  execv(program, words);
  _exit(kNotFound);
}

pid_t Start(const std::string& program, const std::vector<std::string>& words,
            int input, int output) {
  std::vector<char*> pointers;
  for (const std::string& word : words) {
    pointers.push_back(const_cast<char*>(word.c_str()));
  }
  pointers.push_back(nullptr);
  const pid_t child = fork();
  if (child < 0) throw SystemFailure("no new process");
  if (child == 0) {
    BecomeProgram(program.c_str(), pointers.data(), input, output);
  }
  setpgid(child, child);  // whichever of the two comes first
  return child;
}

void Drain(int fd, std::string* output) {
  char bytes[4096];
  ssize_t count = 0;
  while ((count = read(fd, bytes, sizeof(bytes))) > 0) {
    const size_t room = kMaxOutputBytes - output->size();
    output->append(bytes, std::min(room, static_cast<size_t>(count)));
  }
}

// False when |child| has not ended by |end|. Its end counts and not that of its
// output, which something that it has left behind may hold open.
[[nodiscard]] bool WaitForEnd(pid_t child, int output, SteadyTime end,
                              std::string* text) {
  const UniqueFd process(static_cast<int>(syscall(SYS_pidfd_open, child, 0U)));
  if (process.Get() < 0) return false;
  while (true) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(
        std::max(end - GetSteadyTime(), SteadyTime::duration::zero()));
    pollfd fds[] = {{process.Get(), POLLIN, 0}, {output, POLLIN, 0}};
    const int count = poll(fds, 2, static_cast<int>(left.count()));
    if (count == 0 || (count < 0 && errno != EINTR)) return false;
    Drain(output, text);
    if (count > 0 && fds[0].revents != 0) return true;
    // All of it is closed: only the end is waited for.
    if (count > 0 && (fds[1].revents & POLLIN) == 0) output = -1;
  }
}

std::string GetFirstLine(const std::string& text) {
  std::istringstream lines(text);
  std::string line;
  while (line.empty() && std::getline(lines, line)) {
  }
  return line;
}

std::string DescribeFault(const command_result_t& result) {
  std::string line = GetFirstLine(result.output);
  if (!line.empty()) return line;
  return result.exit_status < 0
             ? "killed"
             : "exit status " + std::to_string(result.exit_status);
}

// False when it had to be killed.
[[nodiscard]] bool RunProgram(const std::string& program,
                              const std::vector<std::string>& words,
                              const std::string& input,
                              std::chrono::seconds timeout,
                              command_result_t* result) {
  const UniqueFd standard_input = MakeInput(input);
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw SystemFailure("no pipe");
  const UniqueFd near_end(ends[0]);
  UniqueFd far_end(ends[1]);
  fcntl(near_end.Get(), F_SETFL, O_NONBLOCK);
  const pid_t child =
      Start(program, words, standard_input.Get(), far_end.Get());
  far_end.Reset();
  const bool is_in_time = WaitForEnd(
      child, near_end.Get(), GetSteadyTime() + timeout, &result->output);
  if (!is_in_time) kill(-child, SIGKILL);
  siginfo_t info;
  while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) !=
             0 &&
         errno == EINTR) {
  }
  int wait_status = 0;
  static_cast<void>(!ReapGroup(child, &wait_status));
  Drain(near_end.Get(), &result->output);
  if (WIFEXITED(wait_status)) result->exit_status = WEXITSTATUS(wait_status);
  return is_in_time;
}

}  // namespace

std::string FindProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    return access(name.c_str(), X_OK) == 0 ? name : "";
  }
  std::istringstream folders(GetPath());
  for (std::string folder; std::getline(folders, folder, ':');) {
    std::string path = folder + "/" + name;
    if (!folder.empty() && access(path.c_str(), X_OK) == 0) return path;
  }
  return "";
}

command_result_t RunCommand(const std::vector<std::string>& words,
                            const std::string& input,
                            std::chrono::seconds timeout) {
  command_result_t result;
  std::string called;
  for (const std::string& word : words) {
    called += (called.empty() ? "" : " ") + word;
  }
  const std::string program = FindProgram(words.front());
  if (program.empty()) {
    result.exit_status = kNotFound;
    result.fault = called + ": there is no program " + words.front();
    return result;
  }
  try {
    if (!RunProgram(program, words, input, timeout, &result)) {
      result.fault = "did not end within " + std::to_string(timeout.count()) +
                     " s and was killed";
    } else if (result.exit_status != 0) {
      result.fault = DescribeFault(result);
    }
  } catch (const std::system_error& e) {
    result.fault = e.what();
  }
  if (!result.fault.empty()) result.fault = called + ": " + result.fault;
  return result;
}

}  // namespace vantrel
