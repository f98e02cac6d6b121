// vantrel-companion: the other end of the daemon's link, for Linux.

#include <signal.h>
#include <sys/resource.h>

#include <iostream>

#include "companion/companion.h"
#include "companion/companion_log.h"
#include "companion/options.h"

namespace {

// Each stream and each flow is a descriptor.
void RaiseDescriptorLimit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == -1) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  vantrel::Options options;
  const std::optional<int> exit_status =
      vantrel::ParseOptions(argc, argv, &options, std::cout, std::cerr);
  if (exit_status) return *exit_status;
  // A log that nobody reads any more must not end the program.
  signal(SIGPIPE, SIG_IGN);
  RaiseDescriptorLimit();
  vantrel::ConfigureLog(options.log_level, options.log_as_json);
  vantrel::CaptureLibraryLog();
  return vantrel::Companion(options).Run();
}
