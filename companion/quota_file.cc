#include "companion/quota_file.h"

#include <errno.h>

#include <exception>
#include <utility>

#include "companion/companion_log.h"
#include "support/whole_file.h"

namespace vantrel {
namespace {

// More than all counts of a hundred quotas have.
constexpr size_t kMaxQuotaFileBytes = 64 << 20;

void Log(LogLevel level, const std::string& path, const char* what,
         const char* why) {
  ProgramLog().Write(level, LogKind::kLink, "%s: %s%s", path.c_str(), what,
                     why);
}

}  // namespace

QuotaFile::QuotaFile(asio::io_context& loop, std::string path, Quotas& quotas)
    : path_(std::move(path)),
      quotas_(quotas),
      timer_(loop, [this] { Save(); }) {}

QuotaFile::~QuotaFile() {
  try {
    if (is_waiting_) Save();
  } catch (const std::exception&) {
    // Without memory for the text its counts are lost.
  }
}

void QuotaFile::Load() {
  if (path_.empty()) return;
  std::string text;
  const int error = ReadWholeFile(path_, kMaxQuotaFileBytes, &text);
  if (error == ENOENT) return;  // the first time
  if (error != 0) {
    Log(LogLevel::kWarning, path_,
        "the counts of quotas begin anew: ", DescribeFileError(error));
  } else if (!quotas_.TakeJson(text)) {
    Log(LogLevel::kWarning, path_,
        "counts of quotas that cannot be read begin anew", "");
  }
}

void QuotaFile::OnChange() {
  if (path_.empty() || std::exchange(is_waiting_, true)) return;
  timer_.WaitFor(kPause);
}

void QuotaFile::Save() {
  is_waiting_ = false;
  const int error = ReplaceWholeFile(path_, quotas_.ToJson(), 0600);
  const bool had_failed = std::exchange(has_failed_, error != 0);
  if (error == 0) {
    if (had_failed) Log(LogLevel::kInfo, path_, "is written again", "");
    return;
  }
  if (!had_failed) {
    Log(LogLevel::kWarning, path_,
        "counts of quotas are not kept: ", DescribeFileError(error));
  }
  OnChange();
}

}  // namespace vantrel
