#include <utils/String16.h>

#include <codecvt>
#include <locale>

namespace android {

String16::String16(const char* utf8) {
  std::wstring_convert<std::codecvt_utf8_utf16<char16_t>, char16_t> converter(
      "", u"\uFFFD");
  units_ = converter.from_bytes(utf8);
}

}  // namespace android
