// The companion's own log: one line each on standard error, written whole,
// beginning with the program's name, or one JSON object a line.
#pragma once

#include <stdint.h>

#include <array>
#include <chrono>
#include <string>

#include "programs/steady_time.h"

namespace vantrel {

// A smaller value is more important. kInfo is what a person wants to see of
// normal work; kDebug what happens so often that it is printed on request.
enum class LogLevel { kError, kWarning, kInfo, kDebug };

// What a line is about: each kind is limited in number by itself.
enum class LogKind { kLink, kStream, kDatagram, kRefusal, kDevice, kLibrary };

// For the whole program: what less important than |level| is left out.
void ConfigureLog(LogLevel level, bool as_json);

// The log of the program (id 0) or of one link, which each line names. Never
// waits: a line that standard error cannot take at once is counted, and the
// count is told when it takes lines again. Of each kind at most
// kMaxLinesPerWindow lines a window are written, and the others counted.
class CompanionLog {
 public:
  static constexpr int kMaxLinesPerWindow = 100;
  static constexpr std::chrono::seconds kWindow{1};

  explicit CompanionLog(uint32_t link_id) : link_id_(link_id) {}
  CompanionLog(const CompanionLog&) = delete;
  CompanionLog& operator=(const CompanionLog&) = delete;
  // Tells what was left out.
  ~CompanionLog();

  void Write(LogLevel level, LogKind kind, const char* format, ...)
      __attribute__((format(printf, 4, 5)));

 private:
  static constexpr size_t kKinds = 6;
  struct window_t {
    SteadyTime began;
    int lines = 0;
    unsigned left_out = 0;
  };

  // Whether one more line of |kind| is written at |now|.
  bool Admit(LogKind kind, SteadyTime now);
  void TellLeftOut(LogKind kind, window_t* window);

  const uint32_t link_id_;
  std::array<window_t, kKinds> windows_;
};

// The log of what belongs to no link.
CompanionLog& ProgramLog();

// While it lives, what the project's libraries log is a line of |log|.
class LibraryLogScope {
 public:
  explicit LibraryLogScope(CompanionLog& log);
  LibraryLogScope(const LibraryLogScope&) = delete;
  LibraryLogScope& operator=(const LibraryLogScope&) = delete;
  ~LibraryLogScope();
};

// Takes over what the project's libraries log. Call once.
void CaptureLibraryLog();

}  // namespace vantrel
