// vantrel-companion: the other end of the daemon's link, for Linux.

#include <android/log.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <iostream>

#include "companion/companion.h"
#include "companion/companion_log.h"
#include "companion/options.h"
#include "platform/linux/log_sink.h"
#include "reactor/reactor.h"

namespace {

// Signals end the program through the reactor from the start, so that what is
// set up before it runs is taken down again too. A write to a peer that is
// gone must come back as an error.
void PrepareSignals() {
  signal(SIGPIPE, SIG_IGN);
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
}

// Each stream and each flow is a descriptor.
void RaiseDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == -1) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

// The link's codec puts a component in brackets in front of what it says about
// damaged frames. A warning without one is a write that failed, which the
// companion reports itself where it matters, naming the stream.
void LogLibraryMessage(int priority, const std::string&,
                       const std::string& message) {
  const std::string text = vantrel::ToPrintable(message);
  if (priority >= ANDROID_LOG_ERROR || text.compare(0, 1, "[") == 0) {
    vantrel::Log("%s", text.c_str());
  } else {
    vantrel::LogDetail("%s", text.c_str());
  }
}

}  // namespace

int main(int argc, char** argv) {
  vantrel::Options options;
  const std::optional<int> exit_status =
      vantrel::ParseOptions(argc, argv, &options, std::cout, std::cerr);
  if (exit_status) return *exit_status;
  PrepareSignals();
  RaiseDescriptorLimit();
  vantrel::SetLogDetail(options.verbose);
  vantrel::SetLogSink(LogLibraryMessage);

  vantrel::Reactor reactor;
  vantrel::Companion companion(reactor, options);
  if (!companion.Start()) return EXIT_FAILURE;
  reactor.Start();
  return companion.Finish();
}
