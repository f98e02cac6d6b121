// vantrel-companion: the other end of the daemon's link, for Linux.

#include <signal.h>
#include <stdlib.h>

#include <exception>
#include <iostream>

#include "companion/companion.h"
#include "companion/companion_log.h"
#include "companion/memory_reserve.h"
#include "companion/options.h"
#include "support/open_file_limit.h"
#include "support/standard_descriptors.h"

int main(int argc, char** argv) {
  vantrel::OpenMissingStandardDescriptors();
  vantrel::companion_options_t options;
  const std::optional<int> exit_status =
      vantrel::ParseOptions(argc, argv, &options, std::cout, std::cerr);
  if (exit_status) return *exit_status;
  if (options.rules_check) {
    return vantrel::CheckRules(*options.rules_check, options.rules.is_metered,
                               std::cout, std::cerr);
  }
  // A log that nobody reads any more must not end the program.
  signal(SIGPIPE, SIG_IGN);
  vantrel::ConfigureLog(options.log_level, options.log_as_json);
  vantrel::CaptureLibraryLog();
  vantrel::KeepMemoryReserve();
  try {
    return vantrel::Companion(options, vantrel::RaiseOpenFileLimit()).Run();
  } catch (const std::exception& e) {
    // Before the first link: the system has not even what every program needs.
    vantrel::ProgramLog().Write(vantrel::LogLevel::kError,
                                vantrel::LogKind::kLink, "%s", e.what());
    return EXIT_FAILURE;
  }
}
