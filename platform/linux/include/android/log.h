// Stands in for the device's logging library on Linux: same name, priorities
// and signature, so the daemon's sources are compiled unchanged for both.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef enum android_LogPriority {
  ANDROID_LOG_UNKNOWN = 0,
  ANDROID_LOG_DEFAULT,
  ANDROID_LOG_VERBOSE,
  ANDROID_LOG_DEBUG,
  ANDROID_LOG_INFO,
  ANDROID_LOG_WARN,
  ANDROID_LOG_ERROR,
  ANDROID_LOG_FATAL,
  ANDROID_LOG_SILENT,
} android_LogPriority;

// Writes one message. Appends it as a line in logcat's threadtime form to the
// file that the environment variable VANTREL_LOG_FILE names; without that
// variable, or while the file cannot be opened, to syslog with |tag| as the
// identifier. Control characters inside the message are written as \xNN.
// Returns the number of bytes of the message, or -1 when it could not be
// written; errno is left as it was.
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((__format__(printf, 3, 4)));

#ifdef __cplusplus
}
#endif
