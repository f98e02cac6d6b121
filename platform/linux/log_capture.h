// For unit tests: what the code under test logs.
#pragma once

#include <android/log.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/linux/log_sink.h"

namespace vantrel {

// Collects the log while it lives, one "D: text" per message: the priority's
// letter, then the text. One at a time.
class LogCapture {
 public:
  LogCapture() {
    SetLogSink([this](int priority, const std::string& tag,
                      const std::string& message) {
      const std::string other_tag = tag == "vantrel" ? "" : tag + " ";
      lines_.push_back(other_tag + "??VDIWEF"[priority] + ": " + message);
    });
  }
  ~LogCapture() { SetLogSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  // The lines since construction or the previous call.
  std::vector<std::string> Take() { return std::exchange(lines_, {}); }

 private:
  std::vector<std::string> lines_;
};

}  // namespace vantrel
