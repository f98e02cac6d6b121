// The launcher with a script in the daemon's place.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <fstream>
#include <string>

namespace vantrel {
namespace {

// Everything that the command printed, and its exit status behind.
std::string Shell(const std::string& command) {
  FILE* const pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return "popen failed";
  std::string output;
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe)) {
    output += static_cast<char>(c);
  }
  return output + "= " + std::to_string(WEXITSTATUS(pclose(pipe)));
}

class ProgramsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/programs_test.XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(name));
    directory_ = name;
  }
  void TearDown() override { Shell("rm -r " + directory_); }

  void WriteDaemon(const std::string& script) {
    std::ofstream(directory_ + "/daemon") << "#!/bin/bash\n" << script << "\n";
    chmod((directory_ + "/daemon").c_str(), 0755);
  }

  // The companion: sends |sent|, ends the link, and tells what it got. First
  // what the launcher put out, then what it said, since those two race.
  std::string Launch(const std::string& arguments, const std::string& sent) {
    return Shell(
        "cd " + directory_ +
        "; python3 -c '\nimport socket, subprocess, sys\n"
        "a, b = socket.socketpair()\n"
        "a.sendall(b\"" +
        sent +
        "\")\na.shutdown(socket.SHUT_WR)\n"
        "p = subprocess.Popen(sys.argv[1:] + [\"fd:%d\" % b.fileno()], "
        "pass_fds=[b.fileno()], stderr=open(\"talk\", \"w\"))\n"
        "b.close()\n"
        "got = b\"\".join(iter(lambda: a.recv(4096), b\"\"))\n"
        "p.wait()\n"
        "print(open(\"talk\").read() + \"companion got \" + got.hex())\n"
        "sys.exit(p.returncode)' " VANTREL_LAUNCH " --daemon ./daemon " +
        arguments);
  }

  std::string directory_;
};

TEST_F(ProgramsTest, TheDaemonGetsHeaderAndBytesAndItsStatusIsOurs) {
  // Sends its argument and all it read, in hexadecimal digits.
  WriteDaemon(
      "printf '\\0\\0\\0\\0'; [ $(ulimit -Sn) = $(ulimit -Hn) ] || exit 99\n"
      "echo -n $1 $(od -An -v -tx1 | tr -d ' \\n') >&0\n"
      "printf '\\1\\7\\0'; exit 3");
  std::string header_in_hex;
  for (int i = 0; i < 48; ++i) header_in_hex += "30";
  EXPECT_EQ(
      "started\n"
      "daemon ended: exit status 3\n"
      "vantrel-launch: the link ended\n"
      "vantrel-launch: the status channel ended in the middle of a network "
      "state record (3 of 6 bytes)\n"
      "companion got 3520" +
          header_in_hex + "3631\n= 3",
      Launch("--protocol 5", "a"));

  WriteDaemon("printf '\\1\\0\\0\\0'; head -c2 >&0; exit 1");
  EXPECT_EQ(
      "{\"record\":\"exit_code\",\"code\":1,"
      "\"meaning\":\"the link could not be set up\"}\n"
      "{\"record\":\"daemon_ended\",\"exit_status\":1}\n"
      "companion got 0161\n= 1",
      Launch("--json --direct", "\\x01a"));
}

}  // namespace
}  // namespace vantrel
