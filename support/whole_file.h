// Regular files that are read and written as one.
#pragma once

#include <stddef.h>
#include <sys/types.h>

#include <string>

namespace vantrel {

// Both return 0, or the number of an error that DescribeFileError() tells in
// words. What is no regular file is left alone, since others use it, and one
// may have to wait for it.

// Puts all that the file has, at most |max_bytes|, into |text|.
[[nodiscard]] int ReadWholeFile(const std::string& path, size_t max_bytes,
                                std::string* text);

// Puts a file with |text| in the place of another, or of none: a reader sees
// the old one or the new one. After an error the old one is where it was.
[[nodiscard]] int ReplaceWholeFile(const std::string& path,
                                   const std::string& text, mode_t mode);

const char* DescribeFileError(int error);

}  // namespace vantrel
