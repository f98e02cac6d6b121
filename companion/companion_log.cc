#include "companion/companion_log.h"

#include <android/log.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <new>
#include <nlohmann/json.hpp>

#include "common/printable.h"
#include "platform/linux/log_sink.h"

namespace vantrel {
namespace {

// Longer lines are cut. A pipe or socket that says it has room takes as much.
constexpr size_t kMaxLineBytes = 1024;

constexpr const char* kLevelNames[] = {"error", "warning", "info", "debug"};
constexpr const char* kKindNames[] = {
    "link", "stream", "datagram", "refusal", "device", "library", "state"};

LogLevel wanted_level = LogLevel::kInfo;
bool is_json = false;
uint32_t lost_lines = 0;
CompanionLog* library_log = nullptr;

std::string FormatTime() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc = {};
  gmtime_r(&now.tv_sec, &utc);
  char text[64];
  const size_t length = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
  snprintf(text + length, sizeof(text) - length, ".%03ldZ",
           now.tv_nsec / 1000000);
  return text;
}

std::string FormatJson(LogLevel level, LogKind kind, uint32_t link_id,
                       const std::string& message) {
  nlohmann::ordered_json line;
  line["time"] = FormatTime();
  line["level"] = kLevelNames[static_cast<size_t>(level)];
  line["kind"] = kKindNames[static_cast<size_t>(kind)];
  if (link_id != 0) line["link"] = link_id;
  line["message"] = message;
  return line.dump() + "\n";
}

std::string FormatText(LogLevel level, uint32_t link_id,
                       const std::string& message) {
  std::string line = "vantrel-companion: ";
  if (link_id != 0) line += "link " + std::to_string(link_id) + ": ";
  if (level <= LogLevel::kWarning) {
    line += std::string(kLevelNames[static_cast<size_t>(level)]) + ": ";
  }
  return line + message + "\n";
}

bool HasRoom() {
  pollfd out = {STDERR_FILENO, POLLOUT, 0};
  return poll(&out, 1, 0) == 1 && (out.revents & POLLOUT) != 0;
}

// Whether somebody has it.
bool PrintLine(LogLevel level, LogKind kind, uint32_t link_id,
               const std::string& message) {
  // Text from the device or from a library must not be able to steer a terminal
  // or to forge a line of its own.
  const std::string text = ToPrintable(message);
  const std::string line = is_json ? FormatJson(level, kind, link_id, text)
                                   : FormatText(level, link_id, text);
  return HasRoom() && write(STDERR_FILENO, line.data(), line.size()) >= 0;
}

void Print(LogLevel level, LogKind kind, uint32_t link_id,
           const char* message) {
  try {
    if (!PrintLine(level, kind, link_id, message)) {
      ++lost_lines;
      return;
    }
    if (lost_lines == 0) return;
    const std::string count = std::to_string(lost_lines);
    lost_lines = 0;
    Print(LogLevel::kWarning, LogKind::kLink, 0,
          (count + " lines were lost: nobody read them").c_str());
  } catch (const std::bad_alloc&) {
    ++lost_lines;
  }
}

void PrintLeftOut(LogKind kind, uint32_t link_id, uint32_t count) {
  char message[100];
  snprintf(message, sizeof(message),
           "%u more lines of the kind '%s' were left out", count,
           kKindNames[static_cast<size_t>(kind)]);
  Print(LogLevel::kWarning, kind, link_id, message);
}

LogLevel ToLevel(int priority) {
  if (priority >= ANDROID_LOG_ERROR) return LogLevel::kError;
  return priority == ANDROID_LOG_WARN ? LogLevel::kWarning : LogLevel::kDebug;
}

}  // namespace

void ConfigureLog(LogLevel level, bool as_json) {
  wanted_level = level;
  is_json = as_json;
}

bool IsLogWanted(LogLevel level) { return level <= wanted_level; }

CompanionLog::Windows CompanionLog::all_links;

CompanionLog::~CompanionLog() {
  const SteadyTime now = GetSteadyTime();
  for (size_t i = 0; i < kKinds; ++i) {
    TellLeftOut(static_cast<LogKind>(i), now);
    if (link_id_ == 0) TellLeftOutOfAll(static_cast<LogKind>(i));
  }
}

void CompanionLog::Write(LogLevel level, LogKind kind, const char* format,
                         ...) {
  if (!IsLogWanted(level) || !Admit(kind, GetSteadyTime())) return;
  char message[kMaxLineBytes - 100];  // the rest of the line is in front
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(message, sizeof(message), format, arguments);
  va_end(arguments);
  Print(level, kind, link_id_, message);
}

bool CompanionLog::Admit(LogKind kind, SteadyTime now) {
  window_t& window = windows_[static_cast<size_t>(kind)];
  if (now - window.began >= kWindow) {
    TellLeftOut(kind, now);
    window = {now, 0, 0};
  }
  if (++window.lines <= kMaxLinesPerWindow) return AdmitForAll(kind, now, 1);
  ++window.left_out;
  return false;
}

bool CompanionLog::AdmitForAll(LogKind kind, SteadyTime now, uint32_t count) {
  if (link_id_ == 0 || kind == LogKind::kState) return true;
  window_t& window = all_links[static_cast<size_t>(kind)];
  if (now - window.began >= kWindow) {
    TellLeftOutOfAll(kind);
    window = {now, 0, 0};
  }
  if (++window.lines <= kMaxLinesOfAllLinks) return true;
  window.left_out += count;
  return false;
}

void CompanionLog::TellLeftOut(LogKind kind, SteadyTime now) {
  window_t& window = windows_[static_cast<size_t>(kind)];
  if (window.left_out > 0 && AdmitForAll(kind, now, window.left_out)) {
    PrintLeftOut(kind, link_id_, window.left_out);
  }
  window.left_out = 0;
}

void CompanionLog::TellLeftOutOfAll(LogKind kind) {
  window_t& window = all_links[static_cast<size_t>(kind)];
  if (window.left_out > 0) PrintLeftOut(kind, 0, window.left_out);
  window.left_out = 0;
}

CompanionLog& ProgramLog() {
  static CompanionLog log(0);
  return log;
}

LibraryLogScope::LibraryLogScope(CompanionLog& log) { library_log = &log; }

LibraryLogScope::~LibraryLogScope() { library_log = nullptr; }

void CaptureLibraryLog() {
  SetLogSink([](int priority, const std::string&, const std::string& message) {
    CompanionLog& log = library_log != nullptr ? *library_log : ProgramLog();
    log.Write(ToLevel(priority), LogKind::kLibrary, "%s", message.c_str());
  });
}

}  // namespace vantrel
