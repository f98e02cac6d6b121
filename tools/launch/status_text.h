// The forms in which vantrel-launch prints what happened: a line in words, or
// a JSON object on a line. Scripts read both, so neither changes lightly.
#pragma once

#include <string>

#include "tools/launch/status_reader.h"
#include "tools/package_names.h"

namespace vantrel {

// What an exit code of the daemon means.
const char* DescribeExitCode(int exit_code);

// |wait_status| as waitpid() reports it: "exit status 0" or
// "killed by signal 9 (Killed)".
std::string DescribeWaitStatus(int wait_status);

// All without the newline.
std::string RecordToText(const status_record_t& record,
                         const PackageNames& names);
std::string RecordToJson(const status_record_t& record,
                         const PackageNames& names);
std::string DaemonEndToText(int wait_status);
std::string DaemonEndToJson(int wait_status);

}  // namespace vantrel
