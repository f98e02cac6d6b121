#pragma once

#include <time.h>

namespace vantrel {

// Keeps a line that would repeat without end down to one a second. One object
// for each place that logs such a line.
class LogLimiter {
 public:
  // Whether the line may be logged now.
  [[nodiscard]] bool Admit();

  // The same for a line about a failed call: |error| is its errno. Only want
  // of descriptors or memory is limited; any other failure is always admitted.
  [[nodiscard]] bool AdmitFailure(int error);

 private:
  bool has_logged_ = false;
  timespec last_ = {};  // when a line was admitted, monotonic
};

}  // namespace vantrel
