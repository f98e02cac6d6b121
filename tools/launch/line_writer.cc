#include "tools/launch/line_writer.h"

#include <algorithm>
#include <utility>

namespace vantrel {

LineWriter::LineWriter(asio::io_context& loop, int fd, std::string before_count,
                       std::string after_count)
    : output_(loop, fd, [this] { TellDropped(); }),
      before_count_(std::move(before_count)),
      after_count_(std::move(after_count)) {}

void LineWriter::Write(const std::string& line) {
  output_.Flush();
  if (dropped_ > 0 ||
      output_.GetKept().size() + line.size() >= kMaxWaitingBytes) {
    ++dropped_;
    return;
  }
  output_.Write(line + "\n");
}

void LineWriter::TellDropped() {
  if (dropped_ == 0) return;
  const std::string count = std::to_string(std::exchange(dropped_, 0));
  output_.Write(before_count_ + count + after_count_ + "\n");
}

size_t LineWriter::Finish(int timeout_ms) {
  output_.Finish(timeout_ms);
  const std::string_view kept = output_.GetKept();
  return dropped_ +
         static_cast<size_t>(std::count(kept.begin(), kept.end(), '\n'));
}

}  // namespace vantrel
