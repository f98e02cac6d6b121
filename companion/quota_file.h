#pragma once

#include <asio/io_context.hpp>
#include <chrono>
#include <string>

#include "companion/quotas.h"
#include "support/timer.h"

namespace vantrel {

// The file in which the counts of quotas outlive the program. It is replaced in
// one step, some seconds after something was counted and at the end. Its loss
// is logged, and costs nothing but the counts.
class QuotaFile {
 public:
  // Counts of so long may be lost when the program is killed.
  static constexpr std::chrono::seconds kPause{10};

  // Without |path| nothing is kept. |loop| and |quotas| outlive this.
  QuotaFile(asio::io_context& loop, std::string path, Quotas& quotas);
  QuotaFile(const QuotaFile&) = delete;
  QuotaFile& operator=(const QuotaFile&) = delete;
  ~QuotaFile();  // writes what was not written yet

  // Once, when the quotas are known.
  void Load();
  // Something was counted.
  void OnChange();

 private:
  void Save();

  const std::string path_;
  Quotas& quotas_;
  Timer timer_;
  bool is_waiting_ = false;
  bool has_failed_ = false;  // the last time
};

}  // namespace vantrel
