#include "capture/socket_table.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <unistd.h>

#include <utility>

#include "capture/socket_table_path.h"
#include "common/log.h"
#include "common/log_limiter.h"

namespace vantrel {
namespace {

constexpr size_t kPortDigits = 4;
constexpr size_t kStateDigits = 2;
constexpr uint8_t kNoDigit = 0xFF;
constexpr int kMaxDecimalDigits = 18;  // fit 64 bits whatever they are

constexpr std::array<uint8_t, 256> MakeHexDigits() {
  std::array<uint8_t, 256> digits = {};
  for (size_t i = 0; i < digits.size(); ++i) digits[i] = kNoDigit;
  for (uint8_t i = 0; i < 10; ++i) digits['0' + i] = i;
  for (uint8_t i = 0; i < 6; ++i) {
    digits['A' + i] = static_cast<uint8_t>(10 + i);
    digits['a' + i] = static_cast<uint8_t>(10 + i);
  }
  return digits;
}

constexpr std::array<uint8_t, 256> kHexDigits = MakeHexDigits();

// Takes the parts of one line. Once a part is not there all that follows is
// not, either.
class LineParser {
 public:
  LineParser(const char* begin, const char* end) : next_(begin), end_(end) {}

  bool IsGood() const { return is_good_; }

  void SkipBlanks() {
    while (next_ < end_ && *next_ == ' ') ++next_;
  }
  void TakeBlanks() {
    Expect(next_ < end_ && *next_ == ' ');
    SkipBlanks();
  }
  void Take(char c) {
    Expect(next_ < end_ && *next_ == c);
    if (is_good_) ++next_;
  }
  // |count| hexadecimal digits, not more.
  const char* TakeHex(size_t count, uint32_t* value) {
    const char* const digits = next_;
    Expect(static_cast<size_t>(end_ - next_) >= count);
    if (!is_good_) return digits;
    *value = 0;
    for (size_t i = 0; i < count; ++i) {
      const uint8_t digit = kHexDigits[static_cast<uint8_t>(*next_++)];
      is_good_ = is_good_ && digit != kNoDigit;
      *value = *value << 4 | digit;
    }
    return digits;
  }
  // Not more than |max|: what is out of range only the formats can treat.
  uint64_t TakeDecimal(uint64_t max) {
    uint64_t number = 0;
    int digits = 0;
    for (; next_ < end_ && *next_ >= '0' && *next_ <= '9'; ++digits) {
      number = number * 10 + static_cast<uint64_t>(*next_++ - '0');
    }
    Expect(digits > 0 && digits <= kMaxDecimalDigits && number <= max);
    return number;
  }
  // Anything printable up to a blank.
  void TakeWord() {
    const char* const begin = next_;
    const auto is_in_word = [](char byte) {
      return byte > ' ' && byte < '\x7F';
    };
    while (next_ < end_ && is_in_word(*next_)) ++next_;
    Expect(next_ > begin);
  }

 private:
  void Expect(bool condition) { is_good_ = is_good_ && condition; }

  const char* next_;
  const char* const end_;
  bool is_good_ = true;
};

// In the byte order of the machine, as the kernel prints the word.
uint32_t ParseAddress(const char* digits) {
  uint32_t value = 0;
  LineParser(digits, digits + 8).TakeHex(8, &value);
  return value;
}

void CopyDigits(const char* digits, char* out) {
  memcpy(out, digits, 32);
  out[32] = '\0';
}

}  // namespace

std::unique_ptr<SocketTable> SocketTable::Open(const std::string& name) {
  const std::string path = GetSocketTablePath(name);
  UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.Get() == -1) {
    const int error = errno;
    static LogLimiter limiter;
    if (limiter.AdmitFailure(error)) {
      LOGE("Error opening %s: %s", path.c_str(), strerror(error));
    }
    return nullptr;
  }
  return std::unique_ptr<SocketTable>(new SocketTable(std::move(fd)));
}

SocketTable::~SocketTable() {
  if (is_kept_open_) static_cast<void>(fd_.Release());
}

bool SocketTable::ParseMapped(const char* digits, uint32_t* address) {
  constexpr char kPrefix[] = "0000000000000000FFFF0000";  // of native words
  constexpr size_t kPrefixDigits = sizeof(kPrefix) - 1;
  if (strncmp(digits, kPrefix, kPrefixDigits) != 0) return false;
  *address = ParseAddress(digits + kPrefixDigits);
  return true;
}

bool SocketTable::Next(tcp_row_t* row) {
  plain_row_t plain;
  if (NextPlain(8, &plain)) {
    *row = {ParseAddress(plain.address),
            plain.port,
            ParseAddress(plain.remote_address),
            plain.remote_port,
            plain.state,
            plain.uid,
            plain.inode};
    return true;
  }
  FILE* const rest = GetRest();
  return rest != nullptr &&
         fscanf(rest,
                "%*s %08X:%04hX %08X:%04hX %2hhX %*s %*s %*s %u %*s %lu "
                "%*[^\n]\n",
                &row->address, &row->port, &row->remote_address,
                &row->remote_port, &row->state, &row->uid, &row->inode) == 7;
}

bool SocketTable::Next(tcp6_row_t* row) {
  plain_row_t plain;
  if (NextPlain(32, &plain)) {
    CopyDigits(plain.address, row->address);
    row->port = plain.port;
    CopyDigits(plain.remote_address, row->remote_address);
    row->remote_port = plain.remote_port;
    row->state = plain.state;
    row->uid = plain.uid;
    row->inode = plain.inode;
    return true;
  }
  FILE* const rest = GetRest();
  return rest != nullptr &&
         fscanf(rest,
                "%*s %32[^:]:%hX %32[^:]:%hX %2hhX %*s %*s %*s %u %*s %lu "
                "%*[^\n]\n",
                row->address, &row->port, row->remote_address,
                &row->remote_port, &row->state, &row->uid, &row->inode) == 7;
}

bool SocketTable::Next(udp_row_t* row) {
  plain_row_t plain;
  if (NextPlain(8, &plain)) {
    *row = {ParseAddress(plain.address), plain.port,
            ParseAddress(plain.remote_address), plain.remote_port, plain.uid};
    return true;
  }
  FILE* const rest = GetRest();
  return rest != nullptr &&
         fscanf(rest, "%*s %08X:%04hX %08X:%04hX %*s %*s %*s %*s %u %*[^\n]\n",
                &row->address, &row->port, &row->remote_address,
                &row->remote_port, &row->uid) == 5;
}

bool SocketTable::Next(udp6_row_t* row) {
  plain_row_t plain;
  if (NextPlain(32, &plain)) {
    CopyDigits(plain.address, row->address);
    CopyDigits(plain.remote_address, row->remote_address);
    row->port = plain.port;
    row->remote_port = plain.remote_port;
    row->uid = plain.uid;
    return true;
  }
  FILE* const rest = GetRest();
  return rest != nullptr &&
         fscanf(rest,
                "%*s %32[^:]:%hX %32[^:]:%hX %*s %*s %*s %*s %u %*[^\n]\n",
                row->address, &row->port, row->remote_address,
                &row->remote_port, &row->uid) == 5;
}

bool SocketTable::NextPlain(size_t address_digits, plain_row_t* row) {
  if (!std::exchange(is_begun_, true)) SkipHeading();
  if (has_rest_) return false;
  const char* const line_end = FindLineEnd();
  const char* const line = buffer_.data() + begin_;
  if (line_end == nullptr || !ParsePlain(line, line_end, address_digits, row)) {
    return false;
  }
  begin_ += static_cast<size_t>(line_end + 1 - line);
  return true;
}

// "   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000
// 10001        0 12345 1 ..."
bool SocketTable::ParsePlain(const char* line, const char* end,
                             size_t address_digits, plain_row_t* row) {
  LineParser parser(line, end);
  uint32_t value = 0;
  parser.SkipBlanks();
  parser.TakeDecimal(UINT64_MAX);
  parser.Take(':');
  parser.TakeBlanks();
  row->address = parser.TakeHex(address_digits, &value);
  parser.Take(':');
  parser.TakeHex(kPortDigits, &value);
  row->port = static_cast<uint16_t>(value);
  parser.TakeBlanks();
  row->remote_address = parser.TakeHex(address_digits, &value);
  parser.Take(':');
  parser.TakeHex(kPortDigits, &value);
  row->remote_port = static_cast<uint16_t>(value);
  parser.TakeBlanks();
  parser.TakeHex(kStateDigits, &value);
  row->state = static_cast<uint8_t>(value);
  for (int word = 0; word < 3; ++word) {  // queues, timer, retransmits
    parser.TakeBlanks();
    parser.TakeWord();
  }
  parser.TakeBlanks();
  row->uid = static_cast<uint32_t>(parser.TakeDecimal(UINT32_MAX));
  parser.TakeBlanks();
  parser.TakeWord();
  parser.TakeBlanks();
  row->inode = static_cast<unsigned long>(parser.TakeDecimal(ULONG_MAX));
  parser.TakeBlanks();
  parser.TakeWord();
  return parser.IsGood();
}

const char* SocketTable::FindLineEnd() {
  size_t looked_at = begin_;
  while (true) {
    const void* const newline =
        memchr(buffer_.data() + looked_at, '\n', end_ - looked_at);
    if (newline != nullptr) return static_cast<const char*>(newline);
    looked_at = end_;
    if (begin_ > 0 && end_ == buffer_.size()) {
      memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
      looked_at -= begin_;
      end_ -= begin_;
      begin_ = 0;
    }
    if (!ReadMore()) return nullptr;
  }
}

bool SocketTable::ReadMore() {
  if (is_at_end_ || end_ == buffer_.size()) return false;
  ssize_t count;
  do {
    count = read(fd_.Get(), buffer_.data() + end_, buffer_.size() - end_);
  } while (count == -1 && errno == EINTR);
  // Asked once more behind its end, the kernel would walk all of the table.
  is_at_end_ = count <= 0;
  if (is_at_end_) return false;
  end_ += static_cast<size_t>(count);
  return true;
}

// Only a heading is expected here, "%*[^\n]\n"; a table without rows ends the
// look-ups.
void SocketTable::SkipHeading() {
  const char* const line_end = FindLineEnd();
  const char* const line = buffer_.data() + begin_;
  if (line_end != nullptr && line_end > line) {
    begin_ += static_cast<size_t>(line_end + 1 - line);
    return;
  }
  FILE* const rest = GetRest();
  if (rest != nullptr) static_cast<void>(!fscanf(rest, "%*[^\n]\n"));
}

FILE* SocketTable::GetRest() {
  if (has_rest_) return rest_.get();
  has_rest_ = true;
  do {
    rest_text_.append(buffer_.data() + begin_, end_ - begin_);
    begin_ = end_ = 0;
  } while (ReadMore());
  if (!rest_text_.empty()) {
    rest_.reset(fmemopen(&rest_text_[0], rest_text_.size(), "r"));
  }
  return rest_.get();
}

}  // namespace vantrel
