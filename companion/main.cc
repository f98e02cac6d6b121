// vantrel-companion: the other end of the daemon's link, for Linux.

#include <signal.h>

#include <iostream>

#include "companion/companion.h"
#include "companion/companion_log.h"
#include "companion/options.h"
#include "programs/open_file_limit.h"

int main(int argc, char** argv) {
  vantrel::Options options;
  const std::optional<int> exit_status =
      vantrel::ParseOptions(argc, argv, &options, std::cout, std::cerr);
  if (exit_status) return *exit_status;
  // A log that nobody reads any more must not end the program.
  signal(SIGPIPE, SIG_IGN);
  vantrel::ConfigureLog(options.log_level, options.log_as_json);
  vantrel::CaptureLibraryLog();
  return vantrel::Companion(options, vantrel::RaiseOpenFileLimit()).Run();
}
