#include "tools/launch/pcapng_writer.h"

#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include "common/byte_order.h"
#include "support/system_failure.h"

namespace vantrel {
namespace {

constexpr uint32_t kSectionHeaderBlock = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescriptionBlock = 1;
constexpr uint32_t kEnhancedPacketBlock = 6;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint16_t kLinkTypePrivate = 147;

constexpr uint16_t kEndOfOptions = 0;
constexpr uint16_t kInterfaceNameOption = 2;
constexpr uint16_t kInterfaceDescriptionOption = 3;
constexpr uint16_t kApplicationOption = 4;
constexpr uint16_t kPacketFlagsOption = 2;

// Everything in a block is aligned to 4 bytes.
void PutPadded(std::string* out, const std::string& value) {
  out->append(value);
  out->append((4 - value.size() % 4) % 4, '\0');
}

void PutOption(std::string* out, uint16_t code, const std::string& value) {
  PutLe16(out, code);
  PutLe16(out, static_cast<uint16_t>(value.size()));
  PutPadded(out, value);
}

void PutEndOfOptions(std::string* out) {
  PutLe16(out, kEndOfOptions);
  PutLe16(out, 0);
}

// A pipe without a reader can be opened only by one who might read from it.
UniqueFd Open(const std::string& path) {
  constexpr int kFlags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  UniqueFd file(
      open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | kFlags, 0600));
  if (file.Get() < 0 && errno == ENXIO) {
    file.Reset(open(path.c_str(), O_RDWR | kFlags));
  }
  if (file.Get() < 0) throw SystemFailure("cannot write " + path);
  return file;
}

}  // namespace

PcapngWriter::PcapngWriter(asio::io_context& loop, const std::string& path,
                           Say say)
    : say_(std::move(say)), file_(Open(path)), output_(loop, file_.Get()) {
  std::string body;
  PutLe32(&body, kByteOrderMagic);
  PutLe16(&body, 1);  // version 1.0
  PutLe16(&body, 0);
  PutLe32(&body, UINT32_MAX);  // the section's length, 64 bits: not known
  PutLe32(&body, UINT32_MAX);
  PutOption(&body, kApplicationOption, "vantrel-launch");
  PutEndOfOptions(&body);
  WriteBlock(kSectionHeaderBlock, body);
}

void PcapngWriter::BeginLink(const std::string& description) {
  std::string body;
  PutLe16(&body, kLinkTypePrivate);
  PutLe16(&body, 0);
  PutLe32(&body, 0);  // no limit on the length of a packet
  PutOption(&body, kInterfaceNameOption,
            "link " + std::to_string(++link_count_));
  PutOption(&body, kInterfaceDescriptionOption, description);
  PutEndOfOptions(&body);
  WriteBlock(kInterfaceDescriptionBlock, body);
}

void PcapngWriter::WriteBytes(Direction direction, const std::string& bytes,
                              WallTime now) {
  assert(link_count_ > 0);
  const auto since_epoch =
      std::chrono::duration_cast<std::chrono::microseconds>(
          now.time_since_epoch());
  const auto time = static_cast<uint64_t>(since_epoch.count());
  const auto length = static_cast<uint32_t>(bytes.size());
  std::string body;
  PutLe32(&body, link_count_ - 1);
  PutLe32(&body, static_cast<uint32_t>(time >> 32));
  PutLe32(&body, static_cast<uint32_t>(time));
  PutLe32(&body, length);  // in the file
  PutLe32(&body, length);  // on the link
  PutPadded(&body, bytes);
  std::string flags;
  PutLe32(&flags, direction);
  PutOption(&body, kPacketFlagsOption, flags);
  PutEndOfOptions(&body);
  WriteBlock(kEnhancedPacketBlock, body);
}

void PcapngWriter::WriteBlock(uint32_t type, const std::string& body) {
  if (is_over_) return;
  const auto length = static_cast<uint32_t>(body.size() + 12);
  if (output_.GetKept().size() + length > kMaxWaitingBytes) {
    End("its reader does not keep up");
    return;
  }
  std::string block;
  PutLe32(&block, type);
  PutLe32(&block, length);
  block += body;
  PutLe32(&block, length);
  // What was kept may have failed since, and lost the end of a block.
  if (output_.GetError() == 0) output_.Write(block);
  if (output_.GetError() == 0) {
    byte_count_ += length;
    return;
  }
  End(strerror(output_.GetError()));
  // Of a file that took only a part: readers complain of half a block.
  static_cast<void>(!ftruncate(file_.Get(), static_cast<off_t>(byte_count_)));
}

void PcapngWriter::End(const std::string& reason) {
  is_over_ = true;
  say_("the capture ends here: " + reason);
}

void PcapngWriter::Finish(int timeout_ms) {
  if (is_over_) return;
  output_.Finish(timeout_ms);
  if (output_.GetError() != 0) End(strerror(output_.GetError()));
  const size_t kept = output_.GetKept().size();
  if (kept == 0) return;
  say_("nobody has read the last " + std::to_string(kept) +
       " bytes of the capture");
}

}  // namespace vantrel
