// The daemon's log lines: Android log, tag "vantrel". The arguments are a
// printf format and its values; the compiler checks them.
#pragma once

#include <android/log.h>

#define VANTREL_LOG(priority, ...) \
  static_cast<void>(__android_log_print(priority, "vantrel", __VA_ARGS__))

#define LOGD(...) VANTREL_LOG(ANDROID_LOG_DEBUG, __VA_ARGS__)
#define LOGI(...) VANTREL_LOG(ANDROID_LOG_INFO, __VA_ARGS__)
#define LOGW(...) VANTREL_LOG(ANDROID_LOG_WARN, __VA_ARGS__)
#define LOGE(...) VANTREL_LOG(ANDROID_LOG_ERROR, __VA_ARGS__)
