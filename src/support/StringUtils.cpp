#include "support/StringUtils.h"

#include <rkosdep.h>

#include <cstring>

namespace rk {

namespace {
constexpr const char* kMisuseText = "should not happen! let qz know about it!";
}  // namespace

void SafeStrCpy(char* dst, const char* src, size_t maxlen) {
  if (maxlen == 0 || dst == nullptr) {
    tqDebugBreak(kMisuseText);
    return;
  }
  dst[0] = '\0';
  if (maxlen < 2 || src == nullptr) {
    tqDebugBreak(kMisuseText);
    return;
  }
  // strnlen: src need not be terminated within the part we may copy.
  const size_t n = strnlen(src, maxlen);
  if (n < maxlen) {
    memcpy(dst, src, n + 1);
  } else {
    memcpy(dst, src, maxlen - 1);
    dst[maxlen - 1] = '\0';
  }
}

void ReplaceChar(std::string& text, char from, char to) {
  for (char& c : text) {
    if (c == from) c = to;
  }
}

void ReplaceInvalidFileNameChars(std::string& text) {
  // Explicit ranges rather than isalnum(): the result must not depend on the locale.
  for (char& c : text) {
    const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == ' ' || c == '_' || c == '~';
    if (!keep) c = '.';
  }
}

}  // namespace rk

bool IsOwnDevice(const char* text) {
  if (text == nullptr) return false;
  return strstr(text, "KOR GmbH") != nullptr || strstr(text, "Kormand Sensor Works") != nullptr;
}
