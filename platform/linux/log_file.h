// The file that the Linux stand-in for the platform log appends to.
#pragma once

#include <sys/stat.h>
#include <time.h>

#include <string>
#include <utility>

#include "common/unique_fd.h"

namespace vantrel {

// Keeps the file at a path open for appending and follows that name: when the
// file was renamed or removed, as log rotation does, a new one is made. New
// files have mode 0600, for the log tells what applications connect to. A
// relative path is taken from the directory that is the current one at each
// look. Nothing here waits: a pipe that nobody reads does not open, one that is
// full takes nothing. For one thread.
class LogFile {
 public:
  explicit LogFile(std::string path) : path_(std::move(path)) {}
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  // To be called before each line, with the current time in seconds: looks once
  // in each second that has a line whether the name still is that of the open
  // file, which costs one stat(). False when no file is open. One that was open
  // stays in use as long as no other can be opened.
  [[nodiscard]] bool Follow(time_t now);

  // Appends |line| with one write(); false when the file did not take all of
  // it. The line after a cut one begins with a line break.
  [[nodiscard]] bool Append(const std::string& line);

 private:
  bool HasName() const;  // whether |path_| leads to the open file
  void Open();

  const std::string path_;
  UniqueFd fd_;
  struct stat opened_ = {};  // of |fd_|, while there is one
  time_t looked_at_ = -1;    // |now| of the last look
  bool is_cut_ = false;      // what stands last in the file is no whole line
};

}  // namespace vantrel
