// The companion's own log: one line each on standard error, written whole,
// beginning with the program's name, or one JSON object a line.
#pragma once

#include <stdint.h>

#include <array>
#include <chrono>
#include <string>

#include "support/steady_time.h"

namespace vantrel {

// A smaller value is more important. kInfo is what a person wants to see of
// normal work; kDebug what happens so often that it is printed on request.
enum class LogLevel { kError, kWarning, kInfo, kDebug };

// What a line is about: each kind is limited in number by itself. kState is
// what somebody has asked for.
enum class LogKind {
  kLink,
  kStream,
  kDatagram,
  kRefusal,
  kDevice,
  kLibrary,
  kState
};

// For the whole program: what less important than |level| is left out.
void ConfigureLog(LogLevel level, bool as_json);
// Whether lines of |level| are printed: to be asked where it takes time to make
// the arguments of a line, and many may not be wanted.
[[nodiscard]] bool IsLogWanted(LogLevel level);

// The log of the program (id 0) or of one link, which each line names. Never
// waits and never throws: a line that standard error cannot take at once, or
// for which there is no memory, is counted, and the count is told with a later
// line. Of each kind at most kMaxLinesPerWindow lines a window are written, and
// the others counted; of all links together, but for kState, at most
// kMaxLinesOfAllLinks.
class CompanionLog {
 public:
  static constexpr int kMaxLinesPerWindow = 100;
  // However fast links come and go.
  static constexpr int kMaxLinesOfAllLinks = 500;
  static constexpr std::chrono::seconds kWindow{1};

  explicit CompanionLog(uint32_t link_id) : link_id_(link_id) {}
  CompanionLog(const CompanionLog&) = delete;
  CompanionLog& operator=(const CompanionLog&) = delete;
  // Tells what was left out.
  ~CompanionLog();

  uint32_t GetLinkId() const { return link_id_; }
  void Write(LogLevel level, LogKind kind, const char* format, ...)
      __attribute__((format(printf, 4, 5)));

 private:
  static constexpr size_t kKinds = 7;
  struct window_t {
    SteadyTime began;
    int lines = 0;
    uint32_t left_out = 0;
  };
  using Windows = std::array<window_t, kKinds>;

  // Whether one more line of |kind| is written at |now|.
  bool Admit(LogKind kind, SteadyTime now);
  // The same by the limit of all links. The line stands for |count| others if
  // it is not written.
  bool AdmitForAll(LogKind kind, SteadyTime now, uint32_t count);
  void TellLeftOut(LogKind kind, SteadyTime now);
  static void TellLeftOutOfAll(LogKind kind);

  static Windows all_links;
  const uint32_t link_id_;
  Windows windows_;
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
