#pragma once

#include <sys/types.h>

#include <string>

#include "common/unique_fd.h"

namespace vantrel {

// Why nobody can listen on |path|, in a few words; empty when somebody can.
std::string FindFaultOfSocketPath(const std::string& path);

// A name at which a process waits for others of its own user and of root: a
// file or, where it begins with "@", an abstract one.
class SocketFile {
 public:
  SocketFile() = default;
  SocketFile(const SocketFile&) = delete;
  SocketFile& operator=(const SocketFile&) = delete;
  // Removes the file that it made, unless somebody else took its place.
  ~SocketFile();

  // A stream socket bound to |path|, not listening yet. A socket file on which
  // nobody listens any more is replaced; the new one has the mode 0600. Without
  // a descriptor on failure; the reason is in errno. To be called once.
  UniqueFd Bind(const std::string& path);

  // Whether the user at the other end of |fd| may be here. Files keep others
  // out by themselves.
  bool Admits(int fd) const;

 private:
  bool OwnFile(const std::string& path);

  bool is_abstract_ = false;
  // Our file and what it was when we made it.
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace vantrel
