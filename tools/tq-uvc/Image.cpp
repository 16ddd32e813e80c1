#include "Image.h"

#include <png.h>

#include <algorithm>
#include <cstring>

namespace tool {
namespace {

uint8_t clamp(int v) { return static_cast<uint8_t>(std::min(255, std::max(0, v))); }

void toRgb(int y, int u, int v, uint8_t* out) {
  const int c = 298 * (y - 16);
  const int d = u - 128;
  const int e = v - 128;
  out[0] = clamp((c + 409 * e + 128) >> 8);
  out[1] = clamp((c - 100 * d - 208 * e + 128) >> 8);
  out[2] = clamp((c + 516 * d + 128) >> 8);
}

}  // namespace

std::vector<uint8_t> yuyvToRgb(const uint8_t* yuyv, size_t size, uint32_t width, uint32_t height,
                               uint32_t pitch) {
  std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3, 0);
  const size_t lineBytes = static_cast<size_t>(width / 2) * 4;
  for (uint32_t row = 0; row < height; ++row) {
    const size_t start = static_cast<size_t>(row) * pitch;
    if (start + lineBytes > size) break;
    const uint8_t* in = yuyv + start;
    uint8_t* out = rgb.data() + static_cast<size_t>(row) * width * 3;
    for (uint32_t x = 0; x + 1 < width; x += 2, in += 4, out += 6) {
      toRgb(in[0], in[1], in[3], out);
      toRgb(in[2], in[1], in[3], out + 3);
    }
  }
  return rgb;
}

bool writePng(const std::string& path, const std::vector<uint8_t>& rgb, uint32_t width, uint32_t height,
              std::string* error) {
  png_image image;
  std::memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = width;
  image.height = height;
  image.format = PNG_FORMAT_RGB;
  if (rgb.size() < static_cast<size_t>(width) * height * 3) {
    *error = "image data too short";
    return false;
  }
  if (png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), 0, nullptr) == 0) {
    *error = image.message;
    png_image_free(&image);
    return false;
  }
  return true;
}

std::string frameFileName(const std::string& pattern, unsigned number) {
  const size_t at = pattern.find("%d");
  if (at == std::string::npos) return pattern;
  return pattern.substr(0, at) + std::to_string(number) + pattern.substr(at + 2);
}

}  // namespace tool
