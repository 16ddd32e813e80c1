// Small string helpers shared by every layer.
#pragma once

#include <cstddef>
#include <string>

namespace rk {

// Bounded copy that always terminates dst. dst null or maxlen 0: debug break,
// nothing written. maxlen < 2 or src null: debug break, dst left empty.
void SafeStrCpy(char* dst, const char* src, size_t maxlen);

// Replaces every `from` by `to`.
void ReplaceChar(std::string& text, char from, char to);

// Every character other than a-z, A-Z, 0-9, space, '_' and '~' becomes '.'.
void ReplaceInvalidFileNameChars(std::string& text);

}  // namespace rk

// True when the manufacturer text names one of our own makers (case-sensitive).
bool IsOwnDevice(const char* text);
