#include <android/log.h>
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include "common/printable.h"
#include "platform/linux/log_file.h"
#include "platform/linux/log_sink.h"

namespace vantrel {
namespace {

LogSink& Sink() {
  static LogSink sink;
  return sink;
}

char PriorityLetter(int priority) {
  constexpr char kLetters[] = "??VDIWEFS";
  const bool known =
      priority >= ANDROID_LOG_VERBOSE && priority <= ANDROID_LOG_FATAL;
  return known ? kLetters[priority] : '?';
}

int SyslogLevel(int priority) {
  switch (priority) {
    case ANDROID_LOG_INFO:
      return LOG_INFO;
    case ANDROID_LOG_WARN:
      return LOG_WARNING;
    case ANDROID_LOG_ERROR:
      return LOG_ERR;
    case ANDROID_LOG_FATAL:
      return LOG_CRIT;
    default:
      return LOG_DEBUG;
  }
}

std::string FormatMessage(const char* format, va_list args) {
  va_list again;
  va_copy(again, args);
  const int length = vsnprintf(nullptr, 0, format, args);
  std::string message(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) vsnprintf(&message[0], message.size() + 1, format, again);
  va_end(again);
  return message;
}

// |message| on one line: without the one newline that may end it.
std::string ToLine(const std::string& message) {
  const bool has_end = !message.empty() && message.back() == '\n';
  return EscapeControls(message.substr(0, message.size() - (has_end ? 1 : 0)));
}

// "MM-DD HH:MM:SS.mmm  PID  TID P tag: text", the form of logcat's threadtime
// output.
std::string ThreadTimeLine(const timeval& now, int priority, const char* tag,
                           const std::string& text) {
  tm local;
  localtime_r(&now.tv_sec, &local);
  char when[32];
  strftime(when, sizeof(when), "%m-%d %H:%M:%S", &local);
  char prefix[160];
  snprintf(prefix, sizeof(prefix), "%s.%03d %5d %5ld %c %s: ", when,
           static_cast<int>(now.tv_usec / 1000), getpid(), syscall(SYS_gettid),
           PriorityLetter(priority), tag);
  return prefix + text + '\n';
}

// The file that VANTREL_LOG_FILE names, or null without that variable. Never
// destroyed: what is destroyed at the end of the process may still log.
LogFile* GetLogFile() {
  static LogFile* const file = [] {
    const char* path = getenv("VANTREL_LOG_FILE");
    return path == nullptr || *path == '\0' ? nullptr : new LogFile(path);
  }();
  return file;
}

bool WriteMessage(int priority, const char* tag, const std::string& message) {
  if (Sink()) {
    Sink()(priority, tag, message);
    return true;
  }
  const std::string text = ToLine(message);
  timeval now;
  gettimeofday(&now, nullptr);
  LogFile* const file = GetLogFile();
  if (file != nullptr && file->Follow(now.tv_sec)) {
    return file->Append(ThreadTimeLine(now, priority, tag, text));
  }
  static const char* identifier = strdup(tag);
  openlog(identifier, LOG_PID, LOG_DAEMON);
  syslog(SyslogLevel(priority), "%s", text.c_str());
  return true;
}

}  // namespace

void SetLogSink(LogSink sink) { Sink() = std::move(sink); }

}  // namespace vantrel

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt,
                                   ...) {
  const int saved_errno = errno;
  va_list args;
  va_start(args, fmt);
  const std::string message = vantrel::FormatMessage(fmt, args);
  va_end(args);
  const bool written = vantrel::WriteMessage(prio, tag, message);
  errno = saved_errno;
  return written ? static_cast<int>(message.size()) : -1;
}
