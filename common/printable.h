// Text that comes from outside, in forms that no terminal obeys and that nobody
// takes for lines of their own.
#pragma once

#include <stddef.h>
#include <stdio.h>

#include <algorithm>
#include <string>

namespace vantrel {

// |text| with everything but printable ASCII replaced by '?'. It is as wide as
// it is long, which the columns of a table need, and reads the same everywhere.
inline std::string ToPrintable(const std::string& text) {
  std::string result = text;
  for (char& c : result) {
    if (c < ' ' || c > '~') c = '?';
  }
  return result;
}

// How many bytes the character of UTF-8 (RFC 3629) has that begins at
// |text|[at]; 0 where none does.
inline size_t GetUtf8Length(const std::string& text, size_t at) {
  const auto byte = [&text](size_t i) {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u;
  };
  const uint32_t first = byte(at);
  if (first < 0x80) return 1;
  if (first < 0xC2 || first > 0xF4) return 0;
  const size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  // Neither longer than needed, nor a surrogate, nor above U+10FFFF.
  const uint32_t second = byte(at + 1);
  if ((first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
      (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F)) {
    return 0;
  }
  for (size_t i = 1; i < length; ++i) {
    if (byte(at + i) < 0x80 || byte(at + i) > 0xBF) return 0;
  }
  return length;
}

// For lines of text in which nothing is to be lost: |text| with \xNN in place
// of each byte of a control character, those above ASCII too, and of what is no
// UTF-8. With a line break a name could write a line of its own, with ESC or
// U+009B command the terminal that shows it.
inline std::string EscapeControls(const std::string& text) {
  std::string result;
  result.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const size_t length = GetUtf8Length(text, at);
    const auto first = static_cast<unsigned char>(text[at]);
    const bool is_control =
        first < ' ' || first == 0x7F ||
        (first == 0xC2 && static_cast<unsigned char>(text[at + 1]) < 0xA0);
    if (length > 0 && !is_control) {
      result.append(text, at, length);
      at += length;
      continue;
    }
    for (const size_t end = at + std::max<size_t>(length, 1); at < end; ++at) {
      char escaped[8];
      snprintf(escaped, sizeof(escaped), "\\x%02x",
               static_cast<unsigned char>(text[at]));
      result += escaped;
    }
  }
  return result;
}

}  // namespace vantrel
