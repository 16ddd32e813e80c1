// Frame conversion and PNG output for grab.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// YUYV 4:2:2 (BT.601, video range) to packed RGB, `pitch` bytes per source
// line. Lines the source does not hold completely come out black.
std::vector<uint8_t> yuyvToRgb(const uint8_t* yuyv, size_t size, uint32_t width, uint32_t height,
                               uint32_t pitch);

// Writes an 8-bit RGB PNG; false with a reason in *error on failure.
bool writePng(const std::string& path, const std::vector<uint8_t>& rgb, uint32_t width, uint32_t height,
              std::string* error);

// Expands one "%d" in `pattern` to `number`; other text is kept as it is.
std::string frameFileName(const std::string& pattern, unsigned number);

}  // namespace tool
