// Where the Linux stand-in for the platform log sends its messages.
#pragma once

#include <functional>
#include <string>

namespace vantrel {

// Takes one formatted message; |priority| is one of android_LogPriority.
using LogSink = std::function<void(int priority, const std::string& tag,
                                   const std::string& message)>;

// From now on every message goes to |sink| instead of the log file or syslog;
// an empty function restores those. For the programs that have a log of their
// own, and for unit tests, which collect the lines in memory.
void SetLogSink(LogSink sink);

}  // namespace vantrel
