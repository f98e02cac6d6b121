#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <array>
#include <memory>
#include <string>
#include <utility>

#include "common/unique_fd.h"

namespace vantrel {

class FileCloser {
 public:
  void operator()(FILE* file) const { fclose(file); }
};

// Rows of the kernel's socket tables, as far as the look-ups need them.
// Addresses of IPv4 are words in network byte order, those of IPv6 the 32
// digits of the text; ports are in host byte order.
struct tcp_row_t {
  uint32_t address = 0;
  uint16_t port = 0;
  uint32_t remote_address = 0;
  uint16_t remote_port = 0;
  uint8_t state = 0;  // as the kernel numbers them
  uint32_t uid = 0;
  unsigned long inode = 0;  // 0: no socket is attached
};
struct tcp6_row_t {
  char address[33] = {};
  uint16_t port = 0;
  char remote_address[33] = {};
  uint16_t remote_port = 0;
  uint8_t state = 0;
  uint32_t uid = 0;
  unsigned long inode = 0;
};
struct udp_row_t {
  uint32_t address = 0;
  uint16_t port = 0;
  uint32_t remote_address = 0;
  uint16_t remote_port = 0;
  uint32_t uid = 0;
};
struct udp6_row_t {
  char address[33] = {};
  uint16_t port = 0;
  char remote_address[33] = {};
  uint16_t remote_port = 0;
  uint32_t uid = 0;
};

// One of the kernel's socket tables, read once from top to bottom.
//
// Each kind of row has a scanf format, which defines what a text means. Rows
// that stand exactly as the kernel writes them are read without it, in a small
// part of the time; the first that does not, and all behind it, go through the
// formats.
class SocketTable {
 public:
  // Opens "tcp", "udp6", ... Null on failure, which is logged; want of
  // descriptors at most once a second.
  static std::unique_ptr<SocketTable> Open(const std::string& name);
  ~SocketTable();
  SocketTable(const SocketTable&) = delete;
  SocketTable& operator=(const SocketTable&) = delete;

  // The next row. False when there is none, or one that does not convert; its
  // fields up to there are then set, the others as before.
  [[nodiscard]] bool Next(tcp_row_t* row);
  [[nodiscard]] bool Next(tcp6_row_t* row);
  [[nodiscard]] bool Next(udp_row_t* row);
  [[nodiscard]] bool Next(udp6_row_t* row);

  // The IPv4 address that the 32 |digits| of an IPv6 address stand for, as a
  // word in network byte order. False when it is not an IPv4-mapped one.
  [[nodiscard]] static bool ParseMapped(const char* digits, uint32_t* address);

  // Lets the descriptor stay open behind this object.
  void KeepOpen() { is_kept_open_ = true; }

 private:
  // A row as the kernel writes it; the addresses point into |buffer_|.
  struct plain_row_t {
    const char* address;
    const char* remote_address;
    uint16_t port;
    uint16_t remote_port;
    uint8_t state;
    uint32_t uid;
    unsigned long inode;
  };

  explicit SocketTable(UniqueFd fd) : fd_(std::move(fd)) {}
  // |address_digits| is 8 or 32. False when the next row is not plain.
  bool NextPlain(size_t address_digits, plain_row_t* row);
  static bool ParsePlain(const char* line, const char* end,
                         size_t address_digits, plain_row_t* row);
  // The end of the next line, at its newline; null when there is none in what
  // the buffer can hold.
  const char* FindLineEnd();
  // Reads behind what |buffer_| holds. False at the table's end, or when the
  // buffer is full.
  bool ReadMore();
  void SkipHeading();
  // What has not been read yet, for the formats; null when that is nothing.
  FILE* GetRest();

  UniqueFd fd_;
  bool is_kept_open_ = false;
  std::array<char, 32 * 1024> buffer_;
  size_t begin_ = 0;  // of what is not used yet in |buffer_|
  size_t end_ = 0;
  bool is_begun_ = false;  // with reading; the heading is skipped then
  bool is_at_end_ = false;
  bool has_rest_ = false;
  std::string rest_text_;
  std::unique_ptr<FILE, FileCloser> rest_;  // over |rest_text_|
};

}  // namespace vantrel
